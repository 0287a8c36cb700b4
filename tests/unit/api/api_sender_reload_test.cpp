// The central object: reloads. Where a test says nothing else, its tasks run once, at their start.

#include <algorithm>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_sender.h"
#include "log/error_limiter.h"
#include "log/log.h"
#include "support/api_fixture.h"
#include "support/process_facts.h"
#include "support/recording_syslog.h"
#include "support/vrf_fixture.h"

namespace ipsla {
namespace {

using test::ApiFixture;
using test::kStartAtOnce;
using test::RoutingSocketsIn;
using test::TaskEntry;
using test::VrfFixture;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using testing::UnorderedElementsAre;

// A task with this start time has no run in the life of a test: it lies ahead or wraps to weeks.
constexpr const char* kNotToday = "December 31 23:59:59";

class ApiSenderReloadTest : public testing::Test {
 protected:
  ApiSenderReloadTest() { test::TakeSyslog(); }

  // Starts with these tasks and waits until each has run.
  void StartAndRun(const std::vector<TaskEntry>& tasks) {
    daemon.WriteTasks(tasks, "[0]");
    ASSERT_EQ(daemon.Start(), 0);
    daemon.sender->StartMainLoop();
    ASSERT_TRUE(daemon.RunUntil([&] { return daemon.SuccessfulRuns().size() == tasks.size(); }));
    test::TakeSyslog();
  }

  // Starts with these tasks, none of which runs.
  void StartResting(const std::vector<TaskEntry>& tasks) {
    daemon.WriteTasks(tasks);
    ASSERT_EQ(daemon.Start(), 0);
    test::TakeSyslog();
  }

  void Reload(const std::vector<TaskEntry>& tasks, const std::string& cpus = "[]") {
    daemon.WriteTasks(tasks, cpus);
    const auto reply = daemon.Exchange(test::RequestBytes(3, ""));
    ASSERT_EQ(reply.size(), kApiHeaderSize);
    ASSERT_EQ(DecodeApiHeader(reply).result, kApiSuccess);
  }

  static std::ptrdiff_t Starts() {
    const auto texts = test::TakeSyslogTexts();
    return std::count(texts.begin(), texts.end(), kStartAtOnce);
  }

  ApiFixture daemon;
};

TEST_F(ApiSenderReloadTest, UnchangedReloadLeavesEveryTestRunning) {
  const std::vector<TaskEntry> tasks = {{.id = 1}, {.id = 2}, {.id = 3}};
  StartAndRun(tasks);
  Reload(tasks);
  EXPECT_THAT(daemon.SuccessfulRuns(), UnorderedElementsAre(Pair(1, 1), Pair(2, 1), Pair(3, 1)));
  EXPECT_EQ(Starts(), 0);
}

TEST_F(ApiSenderReloadTest, ChangedTaskAloneStartsAnewWithEmptyStatistics) {
  StartAndRun({{.id = 1}, {.id = 3}, {.id = 5}});
  Reload({{.id = 1}, {.id = 3, .start = kNotToday}, {.id = 5}});
  EXPECT_THAT(daemon.SuccessfulRuns(), UnorderedElementsAre(Pair(1, 1), Pair(5, 1)));
  EXPECT_EQ(Starts(), 0);
}

TEST_F(ApiSenderReloadTest, ChangedIntervalOfTaskThreeRestartsOnlyTaskThree) {
  StartResting({{.id = 1}, {.id = 3}, {.id = 5}});
  Reload({{.id = 1}, {.id = 3, .interval = 21}, {.id = 5}});
  EXPECT_EQ(Starts(), 1);
}

TEST_F(ApiSenderReloadTest, NewTaskIsStartedAndTheOthersGoOn) {
  StartAndRun({{.id = 2}});
  Reload({{.id = 1}, {.id = 2}});
  EXPECT_EQ(Starts(), 1);
  EXPECT_TRUE(daemon.RunUntil([&] { return daemon.SuccessfulRuns().size() == 2; }));
  EXPECT_THAT(daemon.SuccessfulRuns(), UnorderedElementsAre(Pair(1, 1), Pair(2, 1)));
}

TEST_F(ApiSenderReloadTest, RemovedTaskIsGoneFromTestsStatisticsAndLogs) {
  StartAndRun({{.id = 1}, {.id = 2}});
  EXPECT_TRUE(IsErrorLogAllowed(2, ErrorKind::kStart));
  EXPECT_FALSE(IsErrorLogAllowed(2, ErrorKind::kStart));
  Reload({{.id = 1}});
  EXPECT_EQ(ApiPayloadText(daemon.Exchange(test::RequestBytes(2, R"({"tasks": [2]})"))),
            R"({"tasks":[]})");
  EXPECT_THAT(daemon.SuccessfulRuns(), UnorderedElementsAre(Pair(1, 1)));
  EXPECT_TRUE(IsErrorLogAllowed(2, ErrorKind::kStart)) << "the limiter forgot the task";
  const auto lines = test::ReadLogFile(2);
  LOG_DEBUG(2, "written after the file was closed");
  EXPECT_EQ(test::ReadLogFile(2), lines);
  RemoveErrorLimits(2);
}

TEST_F(ApiSenderReloadTest, RemovingTaskZeroLeavesTheDaemonsLogOpen) {
  test::FreshLogFile(0);
  StartResting({{.id = 0}, {.id = 1}});
  Reload({{.id = 1}});
  LOG_DEBUG(0, "still open");
  EXPECT_THAT(test::ReadLogFile(0), Contains("still open"));
}

TEST_F(ApiSenderReloadTest, LastTaskOfAVrfClosesItsSocket) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  StartResting({{.id = 1}, {.id = 2, .vrf = "red"}, {.id = 3, .vrf = "red"}});
  const auto red = RoutingSocketsIn("red");
  ASSERT_THAT(red, SizeIs(1));
  Reload({{.id = 1}, {.id = 3, .vrf = "red"}});
  EXPECT_EQ(RoutingSocketsIn("red"), red) << "one of two tasks was removed";
  Reload({{.id = 1}});
  EXPECT_THAT(RoutingSocketsIn("red"), IsEmpty());
  EXPECT_THAT(RoutingSocketsIn(""), SizeIs(1));
  Reload({});
  EXPECT_THAT(RoutingSocketsIn(""), IsEmpty());
}

TEST_F(ApiSenderReloadTest, TaskThatMovesToAnotherVrfTakesItsSocketAlong) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddVrf("blue");
  StartResting({{.id = 1, .vrf = "red"}});
  Reload({{.id = 1, .vrf = "blue"}});
  EXPECT_THAT(RoutingSocketsIn("red"), IsEmpty());
  EXPECT_THAT(RoutingSocketsIn("blue"), SizeIs(1));
}

TEST_F(ApiSenderReloadTest, ChangedTaskOfAVrfKeepsTheSocket) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  StartResting({{.id = 1, .vrf = "red"}});
  const auto red = RoutingSocketsIn("red");
  Reload({{.id = 1, .interval = 21, .vrf = "red"}});
  EXPECT_EQ(RoutingSocketsIn("red"), red);
}

TEST_F(ApiSenderReloadTest, FirstCpusStartTheWorkersLaterOnesDoNot) {
  const std::size_t before = test::ThreadsOn("0");
  StartResting({});
  daemon.sender->StartMainLoop();
  EXPECT_EQ(test::ThreadsOn("0"), before);
  Reload({}, "[0]");
  EXPECT_EQ(test::ThreadsOn("0"), before + 15);
  Reload({}, "[0, 0, 0]");
  EXPECT_EQ(test::ThreadsOn("0"), before + 15);
}

TEST_F(ApiSenderReloadTest, ReloadWritesItsOneDump) {
  StartResting({{.id = 1}});
  Reload({{.id = 1}, {.id = 10}});
  auto texts = test::TakeSyslogTexts();
  EXPECT_THAT(texts, Contains("List IP SLA operations: 2 tasks"));
  EXPECT_THAT(texts, Not(Contains(HasSubstr("List of keys"))));
  daemon.WriteKeychain(R"({"keychain-storage": [{"key-id": 1, "key-string": "secret"}]})");
  EXPECT_EQ(DecodeApiHeader(daemon.Exchange(test::RequestBytes(4, ""))).result, kApiSuccess);
  texts = test::TakeSyslogTexts();
  EXPECT_THAT(texts, Contains("List of keys in the storage: 1 keys"));
  EXPECT_THAT(texts, Not(Contains(HasSubstr("List IP SLA operations"))));
}

TEST_F(ApiSenderReloadTest, FileThatCannotBeReadChangesNothing) {
  StartAndRun({{.id = 1}});
  daemon.WriteTasksText("{");
  EXPECT_EQ(DecodeApiHeader(daemon.Exchange(test::RequestBytes(3, ""))).result, kApiFailure);
  const auto texts = test::TakeSyslogTexts();
  EXPECT_THAT(texts, Contains("ParseTaskConfigs() failed"));
  EXPECT_THAT(texts, Not(Contains(kStartAtOnce)));
  EXPECT_THAT(daemon.SuccessfulRuns(), UnorderedElementsAre(Pair(1, 1)));
}

TEST_F(ApiSenderReloadTest, FailedReloadOfKeysEndsTheDaemonWithStatusOne) {
  EXPECT_EXIT(
      {
        daemon.WriteTasks({{.id = 1}}, "[0]");
        static_cast<void>(daemon.Start());
        daemon.sender->StartMainLoop();
        daemon.WriteKeychain("{");
        daemon.Send(test::RequestBytes(4, ""));
        static_cast<void>(daemon.ReceiveReply());
      },
      testing::ExitedWithCode(1), "");
}

TEST_F(ApiSenderReloadTest, ReloadsLeakNoDescriptors) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  StartResting({{.id = 1}, {.id = 2, .vrf = "red"}});
  std::size_t before = 0;
  for (int round = 0; round < 10; ++round) {
    // Counted from the second round on: an earlier test may have left the log file of task 3 open.
    if (round == 1) before = test::OpenDescriptors();
    Reload({{.id = 1, .interval = 30 + round}, {.id = 3, .vrf = "red"}});
    Reload({{.id = 1}, {.id = 2, .vrf = "red"}});
  }
  EXPECT_EQ(test::OpenDescriptors(), before);
}

}  // namespace
}  // namespace ipsla
