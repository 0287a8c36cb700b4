// The central object: start and stop. Without CPUs in the tasks file no worker thread runs, so
// tests rest in their first wait.

#include "api/api_sender.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "env/descriptor.h"
#include "support/api_fixture.h"
#include "support/process_facts.h"
#include "support/recording_syslog.h"
#include "support/vrf_fixture.h"

namespace ipsla {
namespace {

using test::ApiFixture;
using test::kStartAtOnce;
using testing::Contains;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class ApiSenderTest : public testing::Test {
 protected:
  ApiSenderTest() { test::TakeSyslog(); }

  ApiFixture daemon;
};

TEST_F(ApiSenderTest, StartsOneTestPerTask) {
  daemon.WriteTasks({{.id = 7}, {.id = 2}, {.id = 40000}});
  ASSERT_EQ(daemon.Start(), 0);
  const auto texts = test::TakeSyslogTexts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), kStartAtOnce), 3);
  const auto reply = daemon.Exchange(test::RequestBytes(2, R"({"tasks": [2, 3, 7, 40000]})"));
  EXPECT_EQ(ApiPayloadText(reply),
            R"({"tasks":[{"sla-id":2,"status":true},)"
            R"({"sla-id":7,"status":true},{"sla-id":40000,"status":true}]})");
}

TEST_F(ApiSenderTest, TestsRunOnTheWorkers) {
  daemon.WriteTasks({{.id = 1, .interval = 0}, {.id = 2, .interval = 0}}, "[0]");
  ASSERT_EQ(daemon.Start(), 0);
  daemon.sender->StartMainLoop();
  ASSERT_TRUE(daemon.RunUntil([&] { return daemon.SuccessfulRuns().size() == 2; }));
  EXPECT_THAT(daemon.SuccessfulRuns(), UnorderedElementsAre(Pair(1, 1), Pair(2, 1)));
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
  EXPECT_THAT(daemon.sender->FileFault(), testing::EndsWith(":1:2: is not JSON"));
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
  const Descriptor blocker(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kApiPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(blocker.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  daemon.WriteTasks({{.id = 3}});
  EXPECT_EQ(daemon.Start(), 0);
  const auto texts = test::TakeSyslogTexts();
  EXPECT_THAT(texts, Contains("Sender api creation failed: bind: Address already in use"));
  EXPECT_EQ(daemon.sender->CreationFault(),
            "no API on 127.0.0.1:10101: bind: Address already in use");
  EXPECT_THAT(texts, Contains(kStartAtOnce));
  daemon.End();
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
    return testing::Value(texts, Contains(kStartAtOnce));
  })) << "the test did not restart";
}

TEST_F(ApiSenderTest, EmptyCpuListStartsNoWorkerThreads) {
  const std::size_t before = test::ThreadsOn("0");
  daemon.WriteTasks({{.id = 1}});
  ASSERT_EQ(daemon.Start(), 0);
  daemon.sender->StartMainLoop();
  EXPECT_EQ(test::ThreadsOn("0"), before);
  EXPECT_THAT(daemon.SuccessfulRuns(), IsEmpty());
}

TEST_F(ApiSenderTest, StopEndsEverythingAndMayBeRepeated) {
  const std::size_t before = test::ThreadsOn("0");
  daemon.WriteTasks({{.id = 1}}, "[0]");
  ASSERT_EQ(daemon.Start(), 0);
  daemon.sender->StartMainLoop();
  EXPECT_THAT(test::RoutingSocketsIn(""), SizeIs(1));
  daemon.sender->Stop();
  EXPECT_EQ(test::ThreadsOn("0"), before);
  EXPECT_THAT(test::RoutingSocketsIn(""), IsEmpty());
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
