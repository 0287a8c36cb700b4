// Disks that do not answer, or have no room.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/format.h"
#include "log/line_queue.h"
#include "log/log_file.h"
#include "log/logger.h"
#include "support/temporary_directory.h"
#include "support/text_files.h"

namespace ipsla::test {
namespace {

using testing::EndsWith;

constexpr LogFileCalls kPipeCalls{[](int) { return off_t{0}; }, &readlink};

// A pipe that nobody empties stands for a disk that does not answer: the file of test 1.
class HangingDiskTest : public testing::Test {
 protected:
  HangingDiskTest() {
    const std::string path = directory_ / "test_1.log";
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    pipe_ = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GE(pipe_, 0);
  }
  ~HangingDiskTest() override { close(pipe_); }

  [[nodiscard]] std::string LogDirectory() const { return directory_.Path().string() + "/"; }

  // Far more than a pipe holds: the writer hangs from now on.
  static void Hang(Logger& logger) {
    logger.OpenLogFile(1);
    logger.Write(1, std::string(std::size_t{1} << 20U, 'x'));
    EXPECT_FALSE(logger.Flush(std::chrono::milliseconds(100)));
  }

  // What the disk takes when it goes on, up to and including `text`.
  std::string GoOn(const std::string& text) const {
    std::string taken;
    std::vector<char> buffer(65536);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!taken.ends_with(text) && std::chrono::steady_clock::now() < deadline) {
      const ssize_t count = read(pipe_, buffer.data(), buffer.size());
      if (count > 0) taken.append(buffer.data(), static_cast<std::size_t>(count));
      if (count <= 0) std::this_thread::yield();
    }
    return taken;
  }

  TemporaryDirectory directory_;
  int pipe_ = -1;
};

TEST_F(HangingDiskTest, NeverLetsACallerWait) {
  Logger logger(LogDirectory(), kPipeCalls);
  Hang(logger);
  logger.Write(1, "behind it");
  logger.OpenLogFile(2);
  logger.Write(2, "another file");
  EXPECT_THAT(GoOn(": behind it\n"), EndsWith(": behind it\n"));
  logger.Shutdown();
  EXPECT_THAT(ReadText(directory_ / "test_2.log"), EndsWith(": another file\n"));
}

TEST_F(HangingDiskTest, CostsTheClosingOfFilesOneWait) {
  Logger logger(LogDirectory(), kPipeCalls);
  Hang(logger);
  const auto begin = std::chrono::steady_clock::now();
  for (std::uint16_t id = 2; id < 22; ++id) {
    logger.OpenLogFile(id);
    logger.CloseLogFile(id);
  }
  logger.CloseLogFile(1);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10 * Logger::kClosePatience);
  GoOn("\n");
}

TEST_F(HangingDiskTest, LosesLinesBeyondTheRoomForThemAndSaysHowMany) {
  Logger logger(LogDirectory(), kPipeCalls);
  Hang(logger);
  const std::string text(100000, 'y');
  constexpr int kLines = 200;
  for (int i = 0; i < kLines; ++i) logger.Write(1, text);
  const std::string taken = GoOn(" lines dropped\n");
  const std::size_t line = taken.rfind('\n', taken.size() - 2) + 1;
  const int dropped = std::stoi(taken.substr(line + LogLine::kTimeBytes));
  const auto kept = std::count(taken.begin(), taken.end(), '\n') - 2;
  EXPECT_EQ(kept + dropped, kLines);
  EXPECT_GT(dropped, 0);
  EXPECT_GT(kept, kLines / 2);
  logger.Write(1, "goes on");
  EXPECT_THAT(GoOn(": goes on\n"), EndsWith(": goes on\n"));
}

TEST_F(HangingDiskTest, DoesNotHoldUpTheEnd) {
  const auto begin = std::chrono::steady_clock::now();
  {
    Logger logger(LogDirectory(), kPipeCalls, std::chrono::milliseconds(50));
    Hang(logger);
    logger.OpenLogFile(2);
    logger.Write(2, "behind it");
    logger.Shutdown();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  // The thread that was left ends by itself.
  GoOn("\n");
}

class SmallDiskTest : public testing::Test {
 protected:
  SmallDiskTest() {
    EXPECT_EQ(mount("tmpfs", directory_.Path().c_str(), "tmpfs", 0, "size=16k"), 0);
  }
  ~SmallDiskTest() override { umount(directory_.Path().c_str()); }

  TemporaryDirectory directory_;
};

TEST_F(SmallDiskTest, BeginsANewLineWhenItHasRoomAgain) {
  Logger logger(directory_.Path().string() + "/");
  WriteText(directory_ / "filler", std::string(4096, 'x'));
  logger.OpenLogFile(1);
  for (int i = 0; i < 1000; ++i) logger.Write(1, Format("line %d of those that fill the disk", i));
  EXPECT_TRUE(logger.Flush(std::chrono::seconds(20)));
  EXPECT_NE(ReadText(directory_ / "test_1.log").back(), '\n') << "the disk is full";
  std::filesystem::remove(directory_ / "filler");
  logger.Write(1, "room again");
  logger.Write(1, "and more");
  logger.Shutdown();
  const std::vector<std::string> lines = ReadLines(directory_ / "test_1.log");
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines.at(lines.size() - 2).substr(LogLine::kTimeBytes), "room again");
  EXPECT_EQ(lines.back().substr(LogLine::kTimeBytes), "and more");
}

}  // namespace
}  // namespace ipsla::test
