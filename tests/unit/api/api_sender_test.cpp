// The central object: start, reload, stop. Without CPUs in the tasks file no worker thread runs, so
// tests rest in their first wait and can be compared at leisure.

#include "api/api_sender.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/error_limiter.h"
#include "log/log.h"
#include "support/api_fixture.h"
#include "support/recording_syslog.h"
#include "support/vrf_fixture.h"

namespace ipsla {
namespace {

using test::ApiFixture;
using test::TaskEntry;
using test::VrfFixture;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class ApiSenderTest : public testing::Test {
 protected:
  ApiSenderTest() { test::TakeSyslog(); }

  // Reads the tasks file as a reload does and applies it.
  void Reload(const std::vector<TaskEntry>& tasks) {
    daemon.WriteTasks(tasks);
    const auto reply = daemon.Exchange(test::RequestBytes(3, ""));
    ASSERT_EQ(reply.size(), kApiHeaderSize);
    ASSERT_EQ(DecodeApiHeader(reply).result, kApiSuccess);
  }

  void StoreStatistics(const std::vector<std::uint16_t>& ids) {
    const boost::lock_guard<boost::mutex> lock(daemon.sender->Statistics().mutex);
    for (const std::uint16_t id : ids) daemon.sender->Statistics().tasks[id].successful_count = 7;
  }

  std::set<std::uint16_t> IdsWithStatistics() {
    const boost::lock_guard<boost::mutex> lock(daemon.sender->Statistics().mutex);
    std::set<std::uint16_t> ids;
    for (const auto& [id, statistics] : daemon.sender->Statistics().tasks) ids.insert(id);
    return ids;
  }

  static std::size_t OpenDescriptors() {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                      std::filesystem::directory_iterator()));
  }

  // Threads of this process whose allowed CPUs are exactly this list.
  static std::size_t ThreadsOn(const std::string& cpus) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
      std::ifstream status(entry.path() / "status");
      for (std::string line; std::getline(status, line);) {
        if (line == "Cpus_allowed_list:\t" + cpus) ++count;
      }
    }
    return count;
  }

  ApiFixture daemon;
};

TEST_F(ApiSenderTest, StartsOneTestPerTaskInAscendingOrder) {
  daemon.WriteTasks({{.id = 7}, {.id = 2}, {.id = 40000}});
  ASSERT_EQ(daemon.Start(), 0);
  std::vector<std::uint16_t> ids;
  for (const auto& [id, running] : daemon.sender->Tests()) {
    ids.push_back(id);
    EXPECT_EQ(running->GetId(), id);
  }
  EXPECT_THAT(ids, ElementsAre(2, 7, 40000));
  const auto texts = test::TakeSyslogTexts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "func 'NewStart' timeout 0 ms"), 3);
  EXPECT_TRUE(daemon.sender->Interfaces().Find(boost::asio::ip::make_address("127.0.0.1"), "1"));
}

TEST_F(ApiSenderTest, DumpsTasksBeforeKeys) {
  ASSERT_EQ(daemon.Start(), 0);
  const auto texts = test::TakeSyslogTexts();
  const auto tasks = std::find(texts.begin(), texts.end(), "List IP SLA operations: 0 tasks");
  const auto keys = std::find(texts.begin(), texts.end(), "List of keys in the storage: 0 keys");
  ASSERT_NE(tasks, texts.end());
  ASSERT_NE(keys, texts.end());
  EXPECT_LT(tasks, keys);
}

TEST_F(ApiSenderTest, UnreadableKeychainFailsTheStartBeforeTheTasks) {
  daemon.WriteKeychain("{");
  daemon.WriteTasksText("{");
  EXPECT_EQ(daemon.Start(), -1);
  const auto texts = test::TakeSyslogTexts();
  EXPECT_THAT(texts, Contains("ParseKeychainConfigs() failed"));
  EXPECT_THAT(texts, Not(Contains("ParseTaskConfigs() failed")));
}

TEST_F(ApiSenderTest, UnreadableTasksFailTheStart) {
  daemon.WriteTasksText("{");
  EXPECT_EQ(daemon.Start(), -1);
  EXPECT_THAT(test::TakeSyslogTexts(), Contains("ParseTaskConfigs() failed"));
}

TEST_F(ApiSenderTest, StartTimeThatCannotBeReadIsNotCaught) {
  daemon.WriteTasks({{.id = 3, .start = "tomorrow"}});
  try {
    static_cast<void>(daemon.Start());
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Cannot parse time string: tomorrow");
  }
}

TEST_F(ApiSenderTest, UnknownVrfIsNotCaught) {
  daemon.WriteTasks({{.id = 3, .vrf = "nowhere"}});
  EXPECT_THROW(static_cast<void>(daemon.Start()), std::runtime_error);
}

TEST_F(ApiSenderTest, BusyPortIsLoggedAndTheDaemonGoesOn) {
  const int blocker = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kApiPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(blocker, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  daemon.WriteTasks({{.id = 3}});
  EXPECT_EQ(daemon.Start(), 0);
  EXPECT_THAT(test::TakeSyslogTexts(),
              Contains("Sender api creation failed: bind: Address already in use"));
  EXPECT_EQ(daemon.sender->Tests().size(), 1U);
  daemon.End();
  close(blocker);
}

TEST_F(ApiSenderTest, UnchangedReloadLeavesEveryTestRunning) {
  const std::vector<TaskEntry> tasks = {{.id = 1}, {.id = 2}, {.id = 3}};
  daemon.WriteTasks(tasks);
  ASSERT_EQ(daemon.Start(), 0);
  const TestMap before = daemon.sender->Tests();
  StoreStatistics({1, 2, 3});
  test::TakeSyslog();
  Reload(tasks);
  EXPECT_EQ(daemon.sender->Tests(), before);
  EXPECT_THAT(IdsWithStatistics(), ElementsAre(1, 2, 3));
  EXPECT_THAT(test::TakeSyslogTexts(), Not(Contains(HasSubstr("NewStart"))));
}

TEST_F(ApiSenderTest, ChangedIntervalOfTaskThreeRestartsOnlyTaskThree) {
  daemon.WriteTasks({{.id = 1}, {.id = 3}, {.id = 5}});
  ASSERT_EQ(daemon.Start(), 0);
  const TestMap before = daemon.sender->Tests();
  StoreStatistics({1, 3, 5});
  Reload({{.id = 1}, {.id = 3, .interval = 21}, {.id = 5}});
  const TestMap& after = daemon.sender->Tests();
  EXPECT_EQ(after.at(1), before.at(1));
  EXPECT_NE(after.at(3), before.at(3));
  EXPECT_EQ(after.at(5), before.at(5));
  EXPECT_TRUE(before.at(3)->IsStopped());
  EXPECT_FALSE(after.at(3)->IsStopped());
  EXPECT_EQ(daemon.sender->Tasks().at(3).interval, 21);
  EXPECT_THAT(IdsWithStatistics(), ElementsAre(1, 5));
}

TEST_F(ApiSenderTest, NewTaskIsStartedAndTheOthersGoOn) {
  daemon.WriteTasks({{.id = 2}});
  ASSERT_EQ(daemon.Start(), 0);
  const auto second = daemon.sender->Tests().at(2);
  test::TakeSyslog();
  Reload({{.id = 1}, {.id = 2}});
  EXPECT_EQ(daemon.sender->Tests().size(), 2U);
  EXPECT_EQ(daemon.sender->Tests().at(2), second);
  const auto texts = test::TakeSyslogTexts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "func 'NewStart' timeout 0 ms"), 1);
}

TEST_F(ApiSenderTest, RemovedTaskIsGoneFromTestsStatisticsAndLogs) {
  test::FreshLogFile(2);
  daemon.WriteTasks({{.id = 1}, {.id = 2}});
  ASSERT_EQ(daemon.Start(), 0);
  const auto removed = daemon.sender->Tests().at(2);
  StoreStatistics({1, 2});
  EXPECT_TRUE(IsErrorLogAllowed(2, ErrorKind::kStart));
  EXPECT_FALSE(IsErrorLogAllowed(2, ErrorKind::kStart));
  Reload({{.id = 1}});
  EXPECT_FALSE(daemon.sender->Tests().contains(2));
  EXPECT_FALSE(daemon.sender->Tasks().contains(2));
  EXPECT_TRUE(removed->IsStopped());
  EXPECT_THAT(IdsWithStatistics(), ElementsAre(1));
  EXPECT_TRUE(IsErrorLogAllowed(2, ErrorKind::kStart)) << "the limiter forgot the task";
  const auto lines = test::ReadLogFile(2);
  LOG_DEBUG(2, "written after the file was closed");
  EXPECT_EQ(test::ReadLogFile(2), lines);
  RemoveErrorLimits(2);
}

TEST_F(ApiSenderTest, RemovingTaskZeroLeavesTheDaemonsLogOpen) {
  test::FreshLogFile(0);
  daemon.WriteTasks({{.id = 0}, {.id = 1}});
  ASSERT_EQ(daemon.Start(), 0);
  Reload({{.id = 1}});
  EXPECT_FALSE(daemon.sender->Tests().contains(0));
  LOG_DEBUG(0, "still open");
  EXPECT_THAT(test::ReadLogFile(0), Contains("still open"));
}

TEST_F(ApiSenderTest, LastTaskOfAVrfClosesItsSocket) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  daemon.WriteTasks({{.id = 1}, {.id = 2, .vrf = "red"}, {.id = 3, .vrf = "red"}});
  ASSERT_EQ(daemon.Start(), 0);
  const int red = daemon.sender->NetlinkHandle("red");
  ASSERT_NE(red, -1);
  Reload({{.id = 1}, {.id = 3, .vrf = "red"}});
  EXPECT_EQ(daemon.sender->NetlinkHandle("red"), red) << "one of two tasks was removed";
  Reload({{.id = 1}});
  EXPECT_EQ(daemon.sender->NetlinkHandle("red"), -1);
  EXPECT_EQ(fcntl(red, F_GETFD), -1) << "the descriptor is still open";
  EXPECT_NE(daemon.sender->NetlinkHandle(""), -1);
  Reload({});
  EXPECT_EQ(daemon.sender->NetlinkHandle(""), -1);
}

TEST_F(ApiSenderTest, TaskThatMovesToAnotherVrfTakesItsSocketAlong) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddVrf("blue");
  daemon.WriteTasks({{.id = 1, .vrf = "red"}});
  ASSERT_EQ(daemon.Start(), 0);
  Reload({{.id = 1, .vrf = "blue"}});
  EXPECT_EQ(daemon.sender->NetlinkHandle("red"), -1);
  EXPECT_NE(daemon.sender->NetlinkHandle("blue"), -1);
}

TEST_F(ApiSenderTest, ChangedTaskOfAVrfKeepsTheSocket) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  daemon.WriteTasks({{.id = 1, .vrf = "red"}});
  ASSERT_EQ(daemon.Start(), 0);
  const int red = daemon.sender->NetlinkHandle("red");
  Reload({{.id = 1, .interval = 21, .vrf = "red"}});
  EXPECT_EQ(daemon.sender->NetlinkHandle("red"), red);
}

TEST_F(ApiSenderTest, AddressChangesReachTheTests) {
  daemon.WriteTasks({{.id = 1, .source = "127.0.0.9"}});
  test::RunIp({"address", "add", "127.0.0.9/32", "dev", "lo"});
  ASSERT_EQ(daemon.Start(), 0);
  test::TakeSyslog();
  test::RunIp({"address", "delete", "127.0.0.9/32", "dev", "lo"});
  std::vector<std::string> texts;
  EXPECT_TRUE(daemon.RunUntil([&] {
    for (const std::string& text : test::TakeSyslogTexts()) texts.push_back(text);
    return testing::Value(texts, Contains("func 'NewStart' timeout 0 ms"));
  })) << "the test did not restart";
}

TEST_F(ApiSenderTest, EmptyCpuListStartsNoWorkerThreads) {
  daemon.WriteTasks({{.id = 1}});
  ASSERT_EQ(daemon.Start(), 0);
  daemon.sender->StartMainLoop();
  EXPECT_EQ(daemon.sender->WorkerThreadCount(), 0U);
  EXPECT_TRUE(IdsWithStatistics().empty());
}

TEST_F(ApiSenderTest, TwoCpusGiveThirtyWorkerThreadsPinned) {
  daemon.WriteTasks({{.id = 1}}, "[0, 0]");
  ASSERT_EQ(daemon.Start(), 0);
  const std::size_t before = ThreadsOn("0");
  daemon.sender->StartMainLoop();
  EXPECT_EQ(daemon.sender->WorkerThreadCount(), 30U);
  EXPECT_EQ(ThreadsOn("0"), before + 30);
  daemon.sender->StartMainLoop();
  EXPECT_EQ(daemon.sender->WorkerThreadCount(), 30U) << "started a second time";
  daemon.End();
  EXPECT_EQ(ThreadsOn("0"), before);
}

TEST_F(ApiSenderTest, ReloadStartsTheWorkersOnceThereAreCpus) {
  ASSERT_EQ(daemon.Start(), 0);
  daemon.sender->StartMainLoop();
  EXPECT_EQ(daemon.sender->WorkerThreadCount(), 0U);
  daemon.WriteTasks({}, "[0]");
  ASSERT_EQ(daemon.Exchange(test::RequestBytes(3, "")).size(), kApiHeaderSize);
  EXPECT_EQ(daemon.sender->WorkerThreadCount(), 15U);
  daemon.WriteTasks({}, "[0, 0, 0]");
  ASSERT_EQ(daemon.Exchange(test::RequestBytes(3, "")).size(), kApiHeaderSize);
  EXPECT_EQ(daemon.sender->WorkerThreadCount(), 15U);
}

TEST_F(ApiSenderTest, TestsRunOnTheWorkersAndSurviveReloads) {
  daemon.WriteTasks({{.id = 1, .interval = 0}, {.id = 2, .interval = 0}}, "[0]");
  ASSERT_EQ(daemon.Start(), 0);
  daemon.sender->StartMainLoop();
  ASSERT_TRUE(daemon.RunUntil([&] {
    return IdsWithStatistics() == std::set<std::uint16_t>{1, 2};
  }));
  daemon.WriteTasks({{.id = 1, .interval = 0}, {.id = 2, .interval = 1}, {.id = 3, .interval = 0}},
                    "[0]");
  ASSERT_EQ(daemon.Exchange(test::RequestBytes(3, "")).size(), kApiHeaderSize);
  EXPECT_TRUE(daemon.RunUntil([&] {
    return IdsWithStatistics() == std::set<std::uint16_t>{1, 2, 3};
  }));
  const boost::lock_guard<boost::mutex> lock(daemon.sender->Statistics().mutex);
  for (const auto& [id, statistics] : daemon.sender->Statistics().tasks) {
    EXPECT_EQ(statistics.successful_count, 1U) << id;
    EXPECT_EQ(statistics.failed_count, 0U) << id;
  }
}

TEST_F(ApiSenderTest, ReloadsLeakNoDescriptors) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  daemon.WriteTasks({{.id = 1}, {.id = 2, .vrf = "red"}});
  ASSERT_EQ(daemon.Start(), 0);
  std::size_t before = 0;
  for (int round = 0; round < 10; ++round) {
    // Counted from the second round on: an earlier test may have left the log file of task 3 open.
    if (round == 1) before = OpenDescriptors();
    Reload({{.id = 1, .interval = 30 + round}, {.id = 3, .vrf = "red"}});
    Reload({{.id = 1}, {.id = 2, .vrf = "red"}});
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(ApiSenderTest, StopEndsEverythingAndMayBeRepeated) {
  daemon.WriteTasks({{.id = 1}}, "[0]");
  ASSERT_EQ(daemon.Start(), 0);
  daemon.sender->StartMainLoop();
  const auto running = daemon.sender->Tests().at(1);
  daemon.sender->Stop();
  EXPECT_TRUE(running->IsStopped());
  EXPECT_EQ(daemon.sender->NetlinkHandle(""), -1);
  daemon.sender->Stop();
  // Nothing is pending any more but what was cancelled.
  daemon.service.restart();
  daemon.service.run();
}

TEST_F(ApiSenderTest, HandlersQueuedWhenTheObjectEndsTouchNothing) {
  daemon.WriteTasks({{.id = 1}});
  ASSERT_EQ(daemon.Start(), 0);
  daemon.Send(test::RequestBytes(9, ""));
  test::RunIp({"address", "add", "127.0.0.8/32", "dev", "lo"});
  daemon.End();
  daemon.service.restart();
  daemon.service.run();
  EXPECT_FALSE(daemon.TakeReply());
  test::RunIp({"address", "delete", "127.0.0.8/32", "dev", "lo"});
}

}  // namespace
}  // namespace ipsla
