#include "log/log.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/recording_syslog.h"
#include "support/text_files.h"

namespace ipsla::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LogTest : public testing::Test {
 protected:
  LogTest() {
    FreshLogFile(0);
    FreshLogFile(5);
    TakeSyslog();
  }
  ~LogTest() override { CloseLogFile(5); }
};

TEST_F(LogTest, WritesBothCopiesOfADebugMessage) {
  const int line = __LINE__ + 1;
  LOG_DEBUG(0, "value %d of %s", 3, "four");
  const std::vector<SyslogRecord> records = TakeSyslog();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].module, 59);
  EXPECT_EQ(records[0].flag, 1);
  EXPECT_EQ(records[0].severity, 7);
  EXPECT_EQ(records[0].line, "%IP_SLA-D-DEBUG: log_test.cpp:" + std::to_string(line) +
                                 ":TestBody(): value 3 of four");
  EXPECT_THAT(ReadLogFile(0), ElementsAre("value 3 of four"));
}

TEST_F(LogTest, WritesBothCopiesOfAnErrorMessage) {
  LOG_ERROR(5, "(test %d) %s", 5, "Network is unreachable");
  const std::vector<SyslogRecord> records = TakeSyslog();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].module, 59);
  EXPECT_EQ(records[0].flag, 0);
  EXPECT_EQ(records[0].severity, 3);
  EXPECT_EQ(records[0].line, "%IP_SLA-E-ERROR: (test 5) Network is unreachable");
  EXPECT_THAT(ReadLogFile(5), ElementsAre("(test 5) Network is unreachable"));
  EXPECT_THAT(ReadLogFile(0), IsEmpty());
}

TEST_F(LogTest, ReadsItsArgumentsOnce) {
  int count = 0;
  LOG_DEBUG(5, "%d", ++count);
  LOG_ERROR(5, "(test %d) %d", 5, ++count);
  EXPECT_THAT(ReadLogFile(5), ElementsAre("1", "(test 5) 2"));
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("1", "(test 5) 2"));
}

TEST_F(LogTest, WritesLongMessagesWholeInBothCopies) {
  const std::string text(5000, 'x');
  LOG_DEBUG(5, "%s%%", text.c_str());
  EXPECT_THAT(ReadLogFile(5), ElementsAre(text + "%"));
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre(text + "%"));
}

TEST_F(LogTest, WritesTheHalvesByThemselves) {
  LOG_DEBUG_FILE(5, "file");
  LOG_DEBUG_SYSTEM("system");
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("system"));
  EXPECT_THAT(ReadLogFile(5), ElementsAre("file"));
}

TEST_F(LogTest, SendsAMessageForAClosedFileToTheSystemLogOnly) {
  LOG_DEBUG(6, "never opened");
  CloseLogFile(5);
  LOG_ERROR(5, "(test %d) closed", 5);
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("never opened", "(test 5) closed"));
  FlushLog(std::chrono::seconds(20));
  EXPECT_FALSE(std::filesystem::exists("/var/log/ip-sla/test_6.log"));
  EXPECT_THAT(ReadLogFile(5), IsEmpty());
}

TEST_F(LogTest, LeavesErrnoAsItWas) {
  for (const std::uint16_t id : std::initializer_list<std::uint16_t>{0, 6}) {
    errno = EXDEV;
    LOG_DEBUG(id, "debug");
    EXPECT_EQ(errno, EXDEV);
    LOG_ERROR(id, "(test %d) error", id);
    EXPECT_EQ(errno, EXDEV);
  }
}

// Scheduling policies of this process's threads that are the log's.
std::vector<int> WriterPolicies() {
  std::vector<int> policies;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (ReadText(task.path() / "comm") == "log-writer\n") {
      policies.push_back(sched_getscheduler(std::stoi(task.path().filename())));
    }
  }
  return policies;
}

TEST(ProcessLoggerTest, HasNoThreadBeforeItIsStarted) {
  TakeSyslog();
  LOG_DEBUG(0, "no log");
  OpenLogFile(11);
  LOG_DEBUG(11, "no log");
  FlushLog(std::chrono::seconds(20));
  CloseLogFile(11);
  ShutdownLog();
  EXPECT_THAT(WriterPolicies(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists("/var/log/ip-sla/test_11.log"));
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("no log", "no log"));
}

TEST(ProcessLoggerTest, HasOneWriterThreadAtNormalPriority) {
  StartLog();
  StartLog();
  // The thread is there, but may not have come to naming itself.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (WriterPolicies().empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_THAT(WriterPolicies(), ElementsAre(SCHED_OTHER));
  ShutdownLog();
  EXPECT_THAT(WriterPolicies(), IsEmpty());
}

TEST(ProcessLoggerTest, StartsAgainAfterItsShutdown) {
  FreshLogFile(5);
  LOG_DEBUG_FILE(5, "before");
  ShutdownLog();
  LOG_DEBUG_FILE(5, "between");
  StartLog();
  LOG_DEBUG_FILE(5, "not open");
  OpenLogFile(5);
  LOG_DEBUG_FILE(5, "after");
  EXPECT_THAT(ReadLogFile(5), ElementsAre("before", "after"));
}

TEST(ProcessLoggerTest, ReachesOnlyTheSystemLogAfterItsShutdown) {
  const auto run = [] {
    FreshLogFile(8);
    LOG_DEBUG(8, "before");
    ShutdownLog();
    TakeSyslog();
    LOG_DEBUG(8, "after");
    FlushLog(std::chrono::seconds(20));
    OpenLogFile(8);
    CloseLogFile(8);
    ShutdownLog();
    FinishChild(TakeSyslogTexts() == std::vector<std::string>{"after"} ? ""
                                                                       : "not in the system log");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
  EXPECT_EQ(ReadLines("/var/log/ip-sla/test_8.log").size(), 1U);
}

// Threads that never stop logging, while the process exits around them.
void LogForEver() {
  static std::array<std::atomic<int>, 3> rounds{};
  for (std::atomic<int>& round : rounds) {
    std::thread([&round] {
      while (true) {
        LOG_DEBUG(9, "round %d", round.load());
        if (++round % 64 == 0) TakeSyslog();
      }
    }).detach();
  }
  const auto has_begun = [](const std::atomic<int>& round) { return round > 100; };
  while (!std::all_of(rounds.begin(), rounds.end(), has_begun)) std::this_thread::yield();
}

bool EndsWithWholeLine(const std::string& text) {
  return !text.empty() && text.back() == '\n';
}

TEST(ProcessLoggerTest, ExitsWhileOtherThreadsLog) {
  const auto run = [] {
    FreshLogFile(9);
    FreshLogFile(10);
    LogForEver();
    LOG_DEBUG(10, "last words");
    std::exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
  EXPECT_TRUE(EndsWithWholeLine(ReadText("/var/log/ip-sla/test_9.log")));
  EXPECT_THAT(ReadText("/var/log/ip-sla/test_10.log"), testing::EndsWith(": last words\n"));
}

TEST(ProcessLoggerTest, ExitsOnAnyThread) {
  const auto run = [] {
    FreshLogFile(9);
    FreshLogFile(10);
    LogForEver();
    std::thread([] {
      LOG_DEBUG(10, "last words");
      std::exit(0);
    }).join();
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
  EXPECT_THAT(ReadText("/var/log/ip-sla/test_10.log"), testing::EndsWith(": last words\n"));
}

struct LogsWhenDestroyed {
  ~LogsWhenDestroyed() { LOG_DEBUG(9, "from a destructor"); }
};

TEST(ProcessLoggerTest, TakesMessagesOfDestructorsAtExit) {
  const auto run = [] {
    FreshLogFile(9);
    static const LogsWhenDestroyed object;
    FinishChild("");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
  EXPECT_THAT(ReadText("/var/log/ip-sla/test_9.log"), testing::EndsWith(": from a destructor\n"));
}

}  // namespace
}  // namespace ipsla::test
