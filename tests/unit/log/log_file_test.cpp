// The size of a log file, and what happens when it cannot be found out.

#include "log/log_file.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/format.h"
#include "log/logger.h"
#include "support/recording_syslog.h"
#include "support/temporary_directory.h"
#include "support/text_files.h"

namespace ipsla::test {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

constexpr std::size_t kLimit = 1048576;

// Numbered lines of 64 bytes, `bytes` in all; the last one is longer when they do not fit.
std::string NumberedLines(std::size_t bytes) {
  std::string text;
  for (int i = 0; text.size() < bytes; ++i) {
    std::string line = std::to_string(i) + " ";
    const std::size_t left = bytes - text.size();
    line.resize((left < 128 ? left : 64) - 1, '.');
    text += line + "\n";
  }
  return text;
}

int FirstNumber(const std::string& line) {
  return std::stoi(line);
}

class LogFileSizeTest : public testing::Test {
 protected:
  // Writes one line behind `content`, and returns the file's lines.
  std::vector<std::string> AppendTo(const std::string& content, const std::string& text) {
    WriteText(path_, content);
    Logger logger(directory_.Path().string() + "/");
    logger.OpenLogFile(1);
    logger.Write(1, text);
    logger.Shutdown();
    return ReadLines(path_);
  }

  TemporaryDirectory directory_;
  std::filesystem::path path_ = directory_ / "test_1.log";
};

TEST_F(LogFileSizeTest, LeavesAFileOfExactlyOneMebibyteWhole) {
  const std::string content = NumberedLines(kLimit);
  ASSERT_EQ(content.size(), kLimit);
  const std::vector<std::string> lines = AppendTo(content, "new");
  ASSERT_EQ(lines.size(), kLimit / 64 + 1);
  EXPECT_EQ(FirstNumber(lines.front()), 0);
  EXPECT_THAT(lines.back(), EndsWith(": new"));
}

TEST_F(LogFileSizeTest, CutsALongerFileToTheNewerHalfBeforeTheNextLine) {
  const std::string content = NumberedLines(kLimit + 64);
  const std::vector<std::string> lines = AppendTo(content, "new");
  // 16385 lines: the middle one stays with the newer half.
  ASSERT_EQ(lines.size(), 8193U + 1U);
  EXPECT_EQ(FirstNumber(lines.front()), 8192);
  EXPECT_EQ(FirstNumber(lines.at(lines.size() - 2)), 16384);
  EXPECT_THAT(lines.back(), EndsWith(": new"));
}

TEST_F(LogFileSizeTest, CutsAFileOneByteTooLong) {
  const std::vector<std::string> lines = AppendTo(NumberedLines(kLimit + 1), "new");
  EXPECT_EQ(lines.size(), kLimit / 64 / 2 + 1);
}

TEST_F(LogFileSizeTest, EndsALastLineThatHadNoNewline) {
  const std::vector<std::string> lines = AppendTo(NumberedLines(kLimit) + "without end", "new");
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines.at(lines.size() - 2), "without end");
  EXPECT_THAT(lines.back(), EndsWith(": new"));
}

TEST_F(LogFileSizeTest, KeepsTheOneLineOfAFile) {
  std::string content(kLimit + 1, 'x');
  content += '\n';
  const std::vector<std::string> lines = AppendTo(content, "new");
  EXPECT_EQ(lines.size(), 2U);
}

TEST_F(LogFileSizeTest, CutsOnceAndGoesOnAtTheNewEnd) {
  WriteText(path_, NumberedLines(kLimit + 64));
  Logger logger(directory_.Path().string() + "/");
  logger.OpenLogFile(1);
  for (int i = 0; i < 3; ++i) logger.Write(1, Format("line %d", i));
  logger.Shutdown();
  const std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(lines.size(), 8193U + 3U);
  EXPECT_THAT(lines.at(lines.size() - 3), EndsWith(": line 0"));
  EXPECT_THAT(lines.back(), EndsWith(": line 2"));
}

// However many lines are written at once, the check comes before each of them.
TEST_F(LogFileSizeTest, CutsBeforeTheVeryLineThatFindsTheFileTooLong) {
  WriteText(path_, NumberedLines(kLimit - 100));
  Logger logger(directory_.Path().string() + "/");
  logger.OpenLogFile(1);
  constexpr std::size_t kLine =
      40;  // three of them take the file over the limit, the fourth finds it so
  for (int i = 0; i < 6; ++i) logger.Write(1, Format("%018d", i));
  logger.Shutdown();
  const std::vector<std::string> lines = ReadLines(path_);
  const std::size_t before = (kLimit - 100) / 64 + 3;
  ASSERT_EQ(lines.back().size() + 1, kLine);
  EXPECT_EQ(lines.size(), before - before / 2 + 3);
  EXPECT_EQ(FirstNumber(lines.front()), static_cast<int>(before / 2));
}

TEST_F(LogFileSizeTest, CutsAgainWhenTheFileHasGrownAgain) {
  Logger logger(directory_.Path().string() + "/");
  logger.OpenLogFile(1);
  const std::string filler(9979, '.');
  for (int i = 0; i < 300; ++i) logger.Write(1, filler);  // 10001 bytes each
  logger.Shutdown();
  const auto size = std::filesystem::file_size(path_);
  EXPECT_LE(size, kLimit + 2 * 10001);
  EXPECT_GE(size, kLimit / 2 - 2 * 10001);
  for (const std::string& line : ReadLines(path_)) ASSERT_EQ(line.size(), 10000U);
}

TEST_F(LogFileSizeTest, DoesNotBringARemovedFileBack) {
  WriteText(path_, NumberedLines(kLimit + 64));
  Logger logger(directory_.Path().string() + "/");
  logger.OpenLogFile(1);
  std::filesystem::remove(path_);
  logger.Write(1, "nowhere");
  logger.Shutdown();
  EXPECT_TRUE(std::filesystem::is_empty(directory_.Path()));
}

off_t FailingTell(int /*fd*/) {
  errno = ESPIPE;
  return -1;
}

off_t LargePosition(int /*fd*/) {
  return kLimit + 1;
}

ssize_t FailingReadLink(const char* /*path*/, char* /*buffer*/, std::size_t /*size*/) {
  errno = EACCES;
  return -1;
}

struct Failure {
  const char* name;
  LogFileCalls calls;
  const char* text;
};

class LogFileFailureTest : public testing::TestWithParam<Failure> {
 protected:
  // The lines of a file without the 21 characters of their times.
  [[nodiscard]] std::vector<std::string> Texts(const std::string& name) const {
    std::vector<std::string> lines = ReadLines(directory_ / name);
    for (std::string& line : lines) line.erase(0, 21);
    return lines;
  }

  TemporaryDirectory directory_;
};

TEST_P(LogFileFailureTest, IsReportedInTheDaemonsLogAndTheLineIsWritten) {
  Logger logger(directory_.Path().string() + "/", GetParam().calls);
  logger.OpenLogFile(0);
  logger.OpenLogFile(1);
  TakeSyslog();
  logger.Write(1, "line");
  logger.Shutdown();
  EXPECT_THAT(Texts("sender.log"), ElementsAre(GetParam().text));
  EXPECT_THAT(Texts("test_1.log"), ElementsAre("line"));
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre(GetParam().text));
}

TEST_P(LogFileFailureTest, IsReportedOncePerLineWhenTheDaemonsOwnLogFails) {
  Logger logger(directory_.Path().string() + "/", GetParam().calls);
  logger.OpenLogFile(0);
  TakeSyslog();
  logger.Write(0, "first");
  logger.Write(0, "second");
  logger.Shutdown();
  const char* text = GetParam().text;
  EXPECT_THAT(Texts("sender.log"), ElementsAre(text, "first", text, "second"));
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre(text, text));
}

TEST_P(LogFileFailureTest, ReachesTheSystemLogAloneWhenTheDaemonsLogIsNotOpen) {
  Logger logger(directory_.Path().string() + "/", GetParam().calls);
  logger.OpenLogFile(1);
  TakeSyslog();
  logger.Write(1, "line");
  logger.Shutdown();
  EXPECT_THAT(Texts("sender.log"), IsEmpty());
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Calls, LogFileFailureTest,
    testing::Values(Failure{"Tell", {&FailingTell, &readlink}, "ftell failed: Illegal seek"},
                    Failure{"ReadLink",
                            {&LargePosition, &FailingReadLink},
                            "readlink failed: Permission denied"}),
    [](const auto& failure) { return std::string(failure.param.name); });

}  // namespace
}  // namespace ipsla::test
