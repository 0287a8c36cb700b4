#include "log/line_time.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/text_files.h"

namespace ipsla::test {
namespace {

std::string TimeOf(LineTime& time, std::time_t now) {
  std::string bytes(LogLine::kTimeBytes, ' ');
  bytes += "text";
  time.PutBefore({1, bytes}, now);
  EXPECT_TRUE(bytes.ends_with(": text"));
  return bytes.substr(0, LogLine::kTimeBytes - 2);
}

// The smallest file of a time zone: one offset for ever.
std::string ZoneFile(int offset_hours) {
  const int seconds = offset_hours * 3600;
  std::string file = "TZif";
  file += std::string(16, '\0');                         // version 1, reserved
  file += std::string(12, '\0') + std::string(4, '\0');  // no leap seconds, no transitions
  file += std::string("\0\0\0\1\0\0\0\4", 8);            // one type, four characters
  for (const int shift : {24, 16, 8, 0}) file += static_cast<char>(seconds >> shift);
  file += std::string("\0\0LAB\0", 6);
  return file;
}

TEST(LineTimeTest, IsTheLocalTimeOfEachSecond) {
  const auto run = [] {
    setenv("TZ", "LAB-05:30", 1);
    LineTime time;
    std::string fault;
    if (TimeOf(time, 1721037600) != "15-07-2024 15:30:00") fault = "first";
    if (TimeOf(time, 1721037600) != "15-07-2024 15:30:00") fault = "same second";
    if (TimeOf(time, 1721037601) != "15-07-2024 15:30:01") fault = "next second";
    if (TimeOf(time, 1721037599) != "15-07-2024 15:29:59") fault = "clock set back";
    FinishChild(fault);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(LineTimeTest, FollowsTheMachineToAnotherTimeZone) {
  const auto run = [] {
    unsetenv("TZ");
    if (unshare(CLONE_NEWNS) != 0 || mount("tmpfs", "/etc", "tmpfs", 0, nullptr) != 0) {
      FinishChild("no private /etc");
    }
    WriteText("/etc/localtime", ZoneFile(2));
    LineTime time;
    const std::string before = TimeOf(time, 1721037600);
    WriteText("/etc/new", ZoneFile(-3));
    std::filesystem::rename("/etc/new", "/etc/localtime");
    const std::string after = TimeOf(time, 1721037601);
    FinishChild(before == "15-07-2024 12:00:00" && after == "15-07-2024 07:00:01"
                    ? ""
                    : before + " and " + after);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ipsla::test
