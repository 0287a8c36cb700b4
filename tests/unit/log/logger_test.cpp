#include "log/logger.h"

#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/thread/exceptions.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/format.h"
#include "log/log_file.h"
#include "log/thread_stack.h"
#include "support/child_process.h"
#include "support/temporary_directory.h"
#include "support/text_files.h"

namespace ipsla::test {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

constexpr std::chrono::seconds kPatience{20};

// The lines of a log file without their times.
std::vector<std::string> Texts(const std::filesystem::path& path) {
  constexpr std::size_t kTimeLength = 21;  // "dd-mm-yyyy hh:mm:ss: "
  std::vector<std::string> texts;
  for (const std::string& line : ReadLines(path)) {
    EXPECT_THAT(line,
                MatchesRegex("[0-9][0-9]-[0-9][0-9]-[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}: .*"));
    texts.push_back(line.size() < kTimeLength ? line : line.substr(kTimeLength));
  }
  return texts;
}

class LoggerTest : public testing::Test {
 protected:
  TemporaryDirectory directory_;
  Logger logger_{directory_.Path().string() + "/"};
};

TEST_F(LoggerTest, WritesTheDaemonsFileAndOnePerTest) {
  for (const std::uint16_t id : std::initializer_list<std::uint16_t>{0, 7, 65535}) {
    logger_.OpenLogFile(id);
  }
  logger_.Write(0, Format("%s %d", "daemon", 1));
  logger_.Write(7, "plain");
  logger_.Write(65535, Format("%5.1f%%", 99.5));
  logger_.Flush(kPatience);
  EXPECT_THAT(Texts(directory_ / "sender.log"), ElementsAre("daemon 1"));
  EXPECT_THAT(Texts(directory_ / "test_7.log"), ElementsAre("plain"));
  EXPECT_THAT(Texts(directory_ / "test_65535.log"), ElementsAre(" 99.5%"));
}

TEST_F(LoggerTest, BeginsEachLineWithTheLocalTime) {
  const auto run = [] {
    setenv("TZ", "LAB-05:30", 1);
    tzset();
    const TemporaryDirectory directory;
    Logger logger(directory.Path().string() + "/");
    logger.OpenLogFile(0);
    const std::time_t before = std::time(nullptr);
    logger.Write(0, "now");
    logger.Flush(kPatience);
    const std::time_t after = std::time(nullptr);
    const std::string line = ReadText(directory / "sender.log");
    tm fields{};
    const char* rest = strptime(line.c_str(), "%d-%m-%Y %T", &fields);
    if (rest == nullptr || std::string(rest) != ": now\n") FinishChild("unexpected line " + line);
    const std::time_t stamp = timegm(&fields) - (5 * 3600 + 30 * 60);
    FinishChild(before <= stamp + 1 && stamp <= after ? "" : "not the local time: " + line);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(LoggerTest, WritesLongTextsWhole) {
  logger_.OpenLogFile(1);
  const std::string text(100000, 'x');
  logger_.Write(1, text);
  logger_.Flush(kPatience);
  EXPECT_THAT(Texts(directory_ / "test_1.log"), ElementsAre(text));
}

TEST_F(LoggerTest, CreatesTheMissingDirectoryWithTheFirstFile) {
  Logger logger((directory_ / "new").string() + "/");
  EXPECT_FALSE(std::filesystem::exists(directory_ / "new"));
  const mode_t mask = umask(022);
  logger.OpenLogFile(0);
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat((directory_ / "new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0755U);
  EXPECT_TRUE(std::filesystem::exists(directory_ / "new/sender.log"));
}

TEST_F(LoggerTest, ThrowsWhenThereIsNoDirectoryAndNoneCanBeMade) {
  WriteText(directory_ / "file", "");
  for (const char* name : {"missing/below/", "file/"}) {
    Logger logger((directory_ / name).string());
    try {
      logger.OpenLogFile(3);
      ADD_FAILURE() << name;
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "Failed to create log directory!");
    }
  }
}

TEST_F(LoggerTest, IsSilentAboutAFileThatCannotBeOpened) {
  std::filesystem::create_directory(directory_ / "test_3.log");
  EXPECT_NO_THROW(logger_.OpenLogFile(3));
  logger_.Write(3, "lost");
  logger_.Flush(kPatience);
  std::filesystem::remove(directory_ / "test_3.log");
  logger_.OpenLogFile(3);
  logger_.Write(3, "found");
  logger_.Flush(kPatience);
  EXPECT_THAT(Texts(directory_ / "test_3.log"), ElementsAre("found"));
}

TEST_F(LoggerTest, DropsTheLinesOfAFileThatIsNotOpen) {
  logger_.Write(4, "never opened");
  logger_.OpenLogFile(4);
  logger_.Write(4, "open");
  logger_.Flush(kPatience);
  logger_.CloseLogFile(4);
  logger_.Write(4, "closed");
  logger_.CloseLogFile(4);
  logger_.OpenLogFile(4);
  logger_.OpenLogFile(4);
  logger_.Write(4, "open again");
  logger_.Flush(kPatience);
  EXPECT_THAT(Texts(directory_ / "test_4.log"), ElementsAre("open", "open again"));
}

TEST_F(LoggerTest, KeepsErrno) {
  logger_.OpenLogFile(1);
  errno = EXDEV;
  logger_.Write(1, "open");
  EXPECT_EQ(errno, EXDEV);
  logger_.Write(2, "not open");
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(LoggerTest, KeepsTheOrderOfEachThreadsLines) {
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  logger_.OpenLogFile(1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kLines; ++i) logger_.Write(1, Format("%d %d", t, i));
    });
  }
  for (std::thread& thread : threads) thread.join();
  logger_.Flush(kPatience);
  std::array<int, kThreads> next{};
  for (const std::string& text : Texts(directory_ / "test_1.log")) {
    const auto thread = static_cast<std::size_t>(text.at(0) - '0');
    EXPECT_EQ(text.substr(2), std::to_string(next.at(thread)++));
  }
  EXPECT_THAT(next, testing::Each(kLines));
}

TEST_F(LoggerTest, OpensAndClosesFilesWhileOthersLog) {
  std::atomic<bool> is_done{false};
  std::vector<std::thread> threads;
  for (const char* name : {"a", "b", "c"}) {
    threads.emplace_back([&, name] {
      for (int i = 0; !is_done; ++i) {
        logger_.Write(static_cast<std::uint16_t>(i % 2), Format("%s %d", name, i));
      }
    });
  }
  for (const std::uint16_t id : std::initializer_list<std::uint16_t>{0, 1}) {
    threads.emplace_back([&, id] {
      for (int i = 0; i < 100; ++i) {
        logger_.OpenLogFile(id);
        logger_.Flush(std::chrono::milliseconds(i % 3));
        logger_.CloseLogFile(id);
      }
    });
  }
  for (; threads.size() > 3; threads.pop_back()) threads.back().join();
  is_done = true;
  for (std::thread& thread : threads) thread.join();
  logger_.Shutdown();
  for (const char* file : {"sender.log", "test_1.log"}) {
    std::map<char, int> last{{'a', -1}, {'b', -1}, {'c', -1}};
    for (const std::string& text : Texts(directory_ / file)) {
      const int number = std::stoi(text.substr(2));
      EXPECT_LT(last.at(text.at(0)), number) << "in the order in which they were logged";
      last.at(text.at(0)) = number;
    }
  }
}

TEST_F(LoggerTest, WritesWhatWasLoggedBeforeAFileIsClosed) {
  for (int round = 1; round <= 20; ++round) {
    logger_.OpenLogFile(1);
    logger_.Write(1, "first");
    logger_.Write(1, "last");
    logger_.CloseLogFile(1);
    EXPECT_EQ(Texts(directory_ / "test_1.log").size(), 2U * static_cast<unsigned>(round));
  }
}

TEST_F(LoggerTest, MakesFilesThatOnlyTheOwnerReads) {
  const mode_t mask = umask(0);
  logger_.OpenLogFile(1);
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat((directory_ / "test_1.log").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(LoggerTest, WritesWhatIsQueuedBeforeItShutsDown) {
  logger_.OpenLogFile(1);
  for (int i = 0; i < 1000; ++i) logger_.Write(1, Format("%d", i));
  logger_.Shutdown();
  EXPECT_EQ(Texts(directory_ / "test_1.log").size(), 1000U);
}

TEST_F(LoggerTest, DoesNothingAfterItsShutdown) {
  logger_.OpenLogFile(1);
  logger_.Shutdown();
  logger_.Write(1, "late");
  logger_.OpenLogFile(1);
  logger_.Write(1, "later");
  logger_.Flush(kPatience);
  logger_.CloseLogFile(1);
  logger_.Shutdown();
  EXPECT_EQ(ReadText(directory_ / "test_1.log"), "");
}

TEST_F(LoggerTest, ShutsDownOnceForManyThreads) {
  logger_.OpenLogFile(1);
  logger_.Write(1, "line");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this] {
      logger_.Shutdown();
      EXPECT_THAT(Texts(directory_ / "test_1.log"), ElementsAre("line"));
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// What a seam function sees of the thread that calls it, the writer.
struct WriterThread {
  int policy = -1;
  std::size_t stack = 0;
};
std::promise<WriterThread>* writer_seen = nullptr;

off_t SeeWriterThread(int /*fd*/) {
  WriterThread seen;
  seen.policy = sched_getscheduler(0);
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
    pthread_attr_getstacksize(&attributes, &seen.stack);
    pthread_attr_destroy(&attributes);
  }
  writer_seen->set_value(seen);
  return 0;
}

TEST(LoggerThreadTest, HasASmallStackAndNormalPriorityEvenForARealTimeCreator) {
  const TemporaryDirectory directory;
  std::promise<WriterThread> seen;
  writer_seen = &seen;
  bool is_real_time = false;
  std::thread creator([&] {
    sched_param parameters{};
    parameters.sched_priority = 1;
    is_real_time = sched_setscheduler(0, SCHED_RR, &parameters) == 0;
    Logger logger(directory.Path().string() + "/", LogFileCalls{&SeeWriterThread, &readlink});
    logger.OpenLogFile(0);
    logger.Write(0, "line");
    logger.Flush(kPatience);
  });
  creator.join();
  const WriterThread writer = seen.get_future().get();
  EXPECT_GE(writer.stack, log_internal::RoundedStackBytes());
  EXPECT_LE(
      writer.stack,
      4 * log_internal::RoundedStackBytes());  // the C library may reuse one up to so much larger
  EXPECT_EQ(writer.policy, SCHED_OTHER);
  if (!is_real_time) {
    GTEST_SKIP() << "this machine gives no real-time priority: inheritance was not tried";
  }
}

Logger* logger_to_end = nullptr;
std::promise<std::string>* end_result = nullptr;

off_t ShutDownOnTheWriter(int /*fd*/) {
  try {
    logger_to_end->Shutdown();
    end_result->set_value("no exception");
  } catch (const boost::thread_resource_error& error) {
    end_result->set_value(error.what());
  }
  return 0;
}

TEST(LoggerThreadTest, RefusesToWaitForItself) {
  const TemporaryDirectory directory;
  Logger logger(directory.Path().string() + "/", LogFileCalls{&ShutDownOnTheWriter, &readlink});
  std::promise<std::string> result;
  logger_to_end = &logger;
  end_result = &result;
  logger.OpenLogFile(0);
  logger.Write(0, "line");
  EXPECT_THAT(result.get_future().get(), testing::HasSubstr("boost thread: trying joining itself"));
  logger.Shutdown();
  EXPECT_THAT(Texts(directory / "sender.log"), ElementsAre("line"));
}

}  // namespace
}  // namespace ipsla::test
