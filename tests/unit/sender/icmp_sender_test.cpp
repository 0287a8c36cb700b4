// ICMP tests on the loopback interface of a private namespace: the kernel answers echo and
// time-stamp requests.

#include "sender/icmp_sender.h"

#include <netinet/ip_icmp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <set>
#include <thread>

#include <boost/smart_ptr/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/error_limiter.h"
#include "sender/icmp_identifier.h"
#include "sender/icmp_message.h"
#include "support/recording_syslog.h"
#include "support/test_context.h"

namespace ipsla {
namespace {

using test::LoopbackTask;
using test::TestContext;
using testing::Contains;
using testing::HasSubstr;

class IcmpSenderTest : public testing::Test {
 protected:
  SlaTaskStatistics FirstRun(const SlaTaskConfig& task) {
    const auto test = boost::make_shared<IcmpSender>(context.worker, task, context.Shared());
    test->Schedule();
    EXPECT_TRUE(context.RunUntil([&] { return context.RunsOf(task.sla_id) == 1; }));
    test->Stop(true);
    return context.StatisticsOf(task.sla_id);
  }

  TestContext context;
};

TEST_F(IcmpSenderTest, EchoRunOnLoopbackIsCompleteAndEndsWithItsLastReply) {
  SlaTaskConfig task = LoopbackTask(20, SlaTestType::kIcmpEcho);
  task.num_packets = 10;
  task.timeout = 15000;  // the run must not wait for it
  const SlaTaskMetrics last = FirstRun(task).last;
  EXPECT_EQ(last.status, RunResult::kSuccessful);
  EXPECT_EQ(last.sd_pkt_count, 10);
  EXPECT_EQ(last.ds_pkt_count, 10);
  EXPECT_EQ(last.rtt_smp_count, 10);
  EXPECT_EQ(last.rtt_min, 0) << "echo tests report 0 as their minimum";
  EXPECT_GT(last.rtt_avg, 0);
  EXPECT_GE(last.rtt_max, last.rtt_avg);
  EXPECT_LE(last.finish_time - last.start_time, 5);
}

TEST_F(IcmpSenderTest, JitterRunOnLoopbackHasOneWayValues) {
  SlaTaskConfig task = LoopbackTask(21, SlaTestType::kIcmpJitter);
  task.num_packets = 5;
  task.interval = 5;
  const SlaTaskMetrics last = FirstRun(task).last;
  EXPECT_EQ(last.status, RunResult::kSuccessful);
  EXPECT_EQ(last.ds_pkt_count, 5);
  EXPECT_EQ(last.sd_loss, 0);
  EXPECT_GT(last.rtt_min, 0);
  EXPECT_LT(last.rtt_min, 1000);
  EXPECT_LE(last.latency_sd_max, 1000);
}

// Stored sizes 0 and 20 leave nothing, or no whole header, to send; whatever the kernel says, the
// probe counts as lost.
TEST_F(IcmpSenderTest, TooSmallPacketsAreLostProbes) {
  std::uint16_t id = 22;
  for (const std::uint16_t stored : std::initializer_list<std::uint16_t>{0, 10, 20, 24}) {
    SlaTaskConfig task = LoopbackTask(id, SlaTestType::kIcmpEcho);
    task.packet_size = stored;
    task.timeout = 50;
    EXPECT_EQ(FirstRun(task).last.error_description, "timeout, no samples") << stored;
    ++id;
  }
}

TEST_F(IcmpSenderTest, SmallestWholePacketsAreAnswered) {
  SlaTaskConfig echo = LoopbackTask(26, SlaTestType::kIcmpEcho);
  echo.packet_size = 28;
  EXPECT_EQ(FirstRun(echo).last.ds_pkt_count, 2);
  SlaTaskConfig jitter = LoopbackTask(27, SlaTestType::kIcmpJitter);
  jitter.packet_size = 40;
  EXPECT_EQ(FirstRun(jitter).last.ds_pkt_count, 2);
}

TEST_F(IcmpSenderTest, UnreachableSourceFailsToStart) {
  SlaTaskConfig task = LoopbackTask(28, SlaTestType::kIcmpEcho);
  task.measurement.vrf = "missing";
  context.interfaces->Set(boost::asio::ip::address_v4::loopback(), "missing", {0x40, 1, "lo"});
  test::TakeSyslog();
  const SlaTaskMetrics last = FirstRun(task).last;
  EXPECT_EQ(last.error_description, "Start test failed");
  EXPECT_THAT(test::TakeSyslogTexts(),
              Contains("(test 28) SetNetworkNamespacemissingfailed: open() failed: %m"));
  RemoveErrorLimits(28);
}

TEST_F(IcmpSenderTest, TwoTestsToOneDestinationKeepTheirRepliesApart) {
  std::vector<boost::shared_ptr<IcmpSender>> tests;
  for (std::uint16_t id = 30; id < 50; ++id) {
    SlaTaskConfig task =
        LoopbackTask(id, id % 2 == 0 ? SlaTestType::kIcmpEcho : SlaTestType::kIcmpJitter);
    task.num_packets = 20;
    tests.push_back(boost::make_shared<IcmpSender>(context.worker, task, context.Shared()));
  }
  for (const auto& test : tests) test->Schedule();
  for (std::uint16_t id = 30; id < 50; ++id) {
    ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(id) >= 1; })) << id;
    const SlaTaskMetrics last = context.StatisticsOf(id).last;
    EXPECT_EQ(last.ds_pkt_count, 20) << id;
    EXPECT_EQ(last.duplicate, 0) << id;
  }
  for (const auto& test : tests) test->Stop(true);
}

TEST(IcmpIdentifier, LivingTestsNeverShareOne) {
  std::set<std::uint16_t> seen;
  std::vector<std::unique_ptr<IcmpIdentifier>> alive;
  for (int i = 0; i < 2000; ++i) {
    alive.push_back(std::make_unique<IcmpIdentifier>());
    EXPECT_TRUE(seen.insert(alive.back()->Value()).second);
  }
}

}  // namespace
}  // namespace ipsla
