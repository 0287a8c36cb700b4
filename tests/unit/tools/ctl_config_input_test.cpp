#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "config/scratch_file.h"
#include "ctl/config_input.h"

namespace ipsla::ctl {
namespace {

TEST(ConfigInput, ReadsAFileAndItsPermissions) {
  const test::ScratchFile file(std::string(100000, 'x'));
  ASSERT_EQ(chmod(file.Name().c_str(), 0640), 0);
  const ConfigInput input = ReadConfigInput(file.Name());
  EXPECT_EQ(input.text, std::string(100000, 'x'));
  EXPECT_FALSE(input.fault.has_value());
  EXPECT_EQ(input.mode, mode_t{0640});
}

TEST(ConfigInput, SaysWhyAFileCannotBeRead) {
  EXPECT_EQ(ReadConfigInput("").fault, "the file name is empty");
  EXPECT_EQ(ReadConfigInput("/nonexistent").fault,
            "the file cannot be read: No such file or directory");
  EXPECT_EQ(ReadConfigInput("/").fault, "the file cannot be read: Is a directory");
}

TEST(ConfigInput, StopsAtTheBound) {
  EXPECT_EQ(ReadConfigInput("/dev/zero").fault, "the file is longer than 64 MiB");
}

TEST(ConfigInput, DoesNotWaitForAPipeWithoutAWriter) {
  const test::ScratchFile file("");
  const std::string pipe = file.Name() + ".pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(ReadConfigInput(pipe).fault, "the file is a pipe into which nobody writes");

  const int writer = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(writer, 0);
  EXPECT_EQ(write(writer, "{}", 2), 2);
  EXPECT_EQ(ReadConfigInput(pipe, std::chrono::milliseconds(20)).fault,
            "the file cannot be read: nothing came from it for 20 ms");
  close(writer);
  unlink(pipe.c_str());
}

}  // namespace
}  // namespace ipsla::ctl
