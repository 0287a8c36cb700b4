// UDP tests against a responder scripted in the test, on loopback in a private namespace.

#include "udp/udp_sender.h"

#include <arpa/inet.h>

#include <array>
#include <functional>
#include <map>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/endian/conversion.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "env/time_values.h"
#include "log/error_limiter.h"
#include "log/log.h"
#include "support/recording_syslog.h"
#include "support/scripted_responder.h"
#include "support/test_context.h"
#include "support/watched_sockets.h"
#include "udp/digest.h"
#include "udp/probe_message.h"

namespace ipsla {
namespace {

using boost::asio::ip::udp;
using test::LoopbackTask;
using test::ScriptedResponder;
using test::TestContext;
using testing::Contains;
using testing::HasSubstr;

using Bytes = std::vector<std::uint8_t>;

class UdpSenderTest : public testing::Test {
 protected:
  UdpSenderTest() {
    test::TakeSyslog();
    RemoveErrorLimits(kId);
  }

  [[nodiscard]] SlaTaskConfig Task(SlaTestType type) {
    SlaTaskConfig task = LoopbackTask(kId, type);
    task.control_phase.dst.sin_port = htons(responder.ControlPort());
    task.packet_size = 58;
    return task;
  }

  SlaTaskStatistics FirstRun(const SlaTaskConfig& task) {
    const auto test = boost::make_shared<UdpSender>(context.worker, task, context.Shared());
    test->Schedule();
    EXPECT_TRUE(context.RunUntil([&] { return context.RunsOf(kId) == 1; }));
    test->Stop(true);
    return context.StatisticsOf(kId);
  }

  // The first run against a responder that answers the control phase with these bytes.
  SlaTaskMetrics RunAnsweredWith(const Bytes& answer) {
    responder.control = [answer](const Bytes&) { return std::vector<Bytes>{answer}; };
    return FirstRun(Task(SlaTestType::kUdpJitter)).last;
  }

  static std::vector<std::string> Errors() {
    std::vector<std::string> errors;
    for (const test::SyslogRecord& record : test::TakeSyslog()) {
      if (record.severity == 3) errors.push_back(record.Text());
    }
    return errors;
  }

  static constexpr std::uint16_t kId = 60;
  TestContext context;
  ScriptedResponder responder{context.worker};
};

TEST_F(UdpSenderTest, JitterRunIsComplete) {
  SlaTaskConfig task = Task(SlaTestType::kUdpJitter);
  task.num_packets = 5;
  task.timeout = 15000;
  const SlaTaskMetrics last = FirstRun(task).last;
  EXPECT_EQ(last.status, RunResult::kSuccessful) << last.error_description;
  EXPECT_EQ(last.sd_pkt_count, 5);
  EXPECT_EQ(last.ds_pkt_count, 5);
  EXPECT_EQ(last.rtt_smp_count, 5);
  EXPECT_EQ(last.sd_loss, 0);
  EXPECT_EQ(last.ds_loss, 0);
  EXPECT_EQ(last.sd_out_of_sequence, 0);
  EXPECT_EQ(last.skipped, 0);
  EXPECT_GT(last.rtt_min, 0);
  EXPECT_GT(last.latency_sd_min, 0);
  EXPECT_LE(last.finish_time - last.start_time, 5) << "the run ends with its last reply";
}

TEST_F(UdpSenderTest, EchoIsMatchedAtOffset20) {
  const SlaTaskMetrics last = FirstRun(Task(SlaTestType::kUdpEcho)).last;
  EXPECT_EQ(last.status, RunResult::kSuccessful);
  EXPECT_EQ(last.ds_pkt_count, 2);
  EXPECT_EQ(last.rtt_min, 0);
  EXPECT_GT(last.rtt_avg, 0);
}

// The 4-byte payload has no room for a sequence number at offset 20: it reads as 0, the slot of the
// last probe.
TEST_F(UdpSenderTest, ShortestEchoFallsOnTheLastSlot) {
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.packet_size = 4;
  task.timeout = 100;
  const SlaTaskMetrics last = FirstRun(task).last;
  EXPECT_EQ(last.ds_pkt_count, 1);
}

TEST_F(UdpSenderTest, NtpRepliesAreAllSkipped) {
  SlaTaskConfig task = Task(SlaTestType::kUdpJitterNtp);
  const SlaTaskMetrics last = FirstRun(task).last;
  EXPECT_EQ(last.status, RunResult::kSuccessful);
  EXPECT_EQ(last.ds_pkt_count, 2);
  EXPECT_EQ(last.skipped, 2);
  EXPECT_EQ(last.sd_smp_count, 0);
  EXPECT_THAT(test::TakeSyslogTexts(),
              Contains("Received the package before sending it ... Change state received -> "
                       "SLA_PACKET_SKIP_STATE"));
}

TEST_F(UdpSenderTest, ProbesCountFromOneAndKeepTheirPadding) {
  std::vector<Bytes> probes;
  responder.probe = [&](const Bytes& probe) {
    probes.push_back(probe);
    return std::vector<Bytes>{responder.Reply(probe)};
  };
  SlaTaskConfig task = Task(SlaTestType::kUdpJitter);
  task.num_packets = 5;
  FirstRun(task);
  ASSERT_EQ(probes.size(), 5U);
  for (std::size_t i = 0; i < probes.size(); ++i) {
    Bytes header(28, 0);
    header[1] = 2;
    header[23] = static_cast<std::uint8_t>(i + 1);
    EXPECT_EQ(Bytes(probes[i].begin(), probes[i].begin() + 28), header);
    EXPECT_EQ(Bytes(probes[i].begin() + 28, probes[i].end()),
              Bytes(probes[0].begin() + 28, probes[0].end()));
  }
}

TEST_F(UdpSenderTest, ForeignTypeIsNeitherCountedNorRecorded) {
  responder.probe = [&](const Bytes& probe) {
    Bytes foreign = responder.Reply(probe);
    foreign[1] = 1;
    return std::vector<Bytes>{foreign, responder.Reply(probe)};
  };
  const SlaTaskMetrics last = FirstRun(Task(SlaTestType::kUdpJitter)).last;
  EXPECT_EQ(last.ds_pkt_count, 2);
  EXPECT_EQ(last.duplicate, 0);
}

TEST_F(UdpSenderTest, SecondReplyIsADuplicate) {
  responder.probe = [&](const Bytes& probe) {
    const Bytes reply = responder.Reply(probe);
    return std::vector<Bytes>{reply, reply};
  };
  SlaTaskConfig task = Task(SlaTestType::kUdpJitter);
  task.num_packets = 3;
  task.interval = 20;
  const SlaTaskMetrics last = FirstRun(task).last;
  EXPECT_EQ(last.ds_pkt_count, 3);
  EXPECT_EQ(last.duplicate, 2) << "the run ends with the first reply to the last probe";
}

TEST_F(UdpSenderTest, ReplyToAProbeNotSentYetIsIgnored) {
  responder.probe = [&](const Bytes& probe) {
    Bytes early = responder.Reply(probe);
    boost::endian::store_big_u32(&early[20], 3);
    return std::vector<Bytes>{early};
  };
  SlaTaskConfig task = Task(SlaTestType::kUdpJitter);
  task.num_packets = 4;
  task.interval = 30;
  task.timeout = 100;
  const SlaTaskMetrics last = FirstRun(task).last;
  EXPECT_EQ(last.ds_pkt_count, 1) << "only the answer that came after probe 3";
}

// With short intervals nothing wakes up for the single reply. The responder has a loop of its own:
// the test's only thread is sending.
TEST_F(UdpSenderTest, OnlyWithLongIntervalsIsEachReplyWaitedFor) {
  const auto watched_at_the_second_probe = [this](int interval) {
    boost::asio::io_context far;
    ScriptedResponder other(far);
    std::vector<std::size_t> watched;
    other.probe = [&](const Bytes& probe) {
      watched.push_back(test::WatchedSockets());
      return std::vector<Bytes>{other.Reply(probe)};
    };
    std::thread thread([&far] { far.run(); });
    SlaTaskConfig task = Task(SlaTestType::kUdpJitter);
    task.control_phase.dst.sin_port = htons(other.ControlPort());
    task.num_packets = 3;
    task.interval = interval;
    context.statistics->tasks.clear();
    EXPECT_EQ(FirstRun(task).last.ds_pkt_count, 3);
    far.stop();
    thread.join();
    return watched.at(1);
  };
  const std::size_t unwatched = watched_at_the_second_probe(20);
  EXPECT_EQ(watched_at_the_second_probe(100), unwatched);
  EXPECT_EQ(watched_at_the_second_probe(101), unwatched + 1);
}

TEST_F(UdpSenderTest, RequestIsSentFromTheBoundPortsAndSigned) {
  SlaTaskConfig task = Task(SlaTestType::kUdpJitter);
  task.auth = {SlaAuthMode::kKeychain, SlaAuthAlgorithm::kHmacSha256, 5, ""};
  context.keys->Replace({{5, "secret"}});
  FirstRun(task);
  ASSERT_EQ(responder.requests.size(), 1U);
  const Bytes& bytes = responder.requests[0];
  ASSERT_EQ(bytes.size(), kControlMessageSize);
  const ControlPhaseMessage request = DecodeControlMessage(bytes);
  EXPECT_NE(request.control_sender_port, 0);
  EXPECT_NE(request.measurement_sender_port, 0);
  EXPECT_EQ(request.control_responder_port, 0);
  EXPECT_EQ(request.key_id, 5);
  const auto expected =
      MessageDigest(SlaAuthAlgorithm::kHmacSha256,
                    std::span<const std::uint8_t, kControlMessageSize>(bytes), "secret");
  ASSERT_TRUE(expected);
  EXPECT_EQ(request.digest, *expected);
}

TEST_F(UdpSenderTest, EveryControlPhaseHasAFreshNonceAndTheCurrentKey) {
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.scheduler.time = 0;
  task.auth = {SlaAuthMode::kKeychain, SlaAuthAlgorithm::kSha256, 5, ""};
  context.keys->Replace({{5, "first"}});
  const auto test = boost::make_shared<UdpSender>(context.worker, task, context.Shared());
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(kId) >= 1; }));
  context.keys->Replace({{5, "second"}});
  const std::size_t before = responder.requests.size();
  ASSERT_TRUE(context.RunUntil([&] { return responder.requests.size() >= before + 2; }));
  const Bytes& last = responder.requests.back();
  const ControlPhaseMessage request = DecodeControlMessage(last);
  EXPECT_NE(request.nonce, DecodeControlMessage(responder.requests.front()).nonce);
  EXPECT_EQ(request.digest,
            MessageDigest(SlaAuthAlgorithm::kSha256,
                          std::span<const std::uint8_t, kControlMessageSize>(last), "second"));
  context.keys->Replace({});
  ASSERT_TRUE(context.RunUntil([&] { return context.StatisticsOf(kId).failed_count >= 1; }));
  EXPECT_EQ(context.StatisticsOf(kId).last.error_description, "Start test failed")
      << "the key is gone";
  test->Stop(true);
}

TEST_F(UdpSenderTest, MissingKeyFailsTheCreation) {
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.auth = {SlaAuthMode::kKeychain, SlaAuthAlgorithm::kSha256, 9, ""};
  try {
    boost::make_shared<UdpSender>(context.worker, task, context.Shared());
    FAIL() << "nothing was raised";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Get auth key failed for test 60");
  }
}

TEST_F(UdpSenderTest, OtherTypesAreNotCreated) {
  try {
    boost::make_shared<UdpSender>(context.worker, Task(SlaTestType::kIcmpEcho), context.Shared());
    FAIL() << "nothing was raised";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Unknown UDP sla sender type");
  }
}

TEST_F(UdpSenderTest, SourceZeroFailsWithoutALogLine) {
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.control_phase.src.sin_addr.s_addr = 0;
  EXPECT_EQ(FirstRun(task).last.error_description, "Start test failed");
  EXPECT_TRUE(Errors().empty());
}

TEST_F(UdpSenderTest, BusySourcePortFailsTheStart) {
  udp::socket occupied(context.worker, udp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.measurement.src.sin_port = htons(occupied.local_endpoint().port());
  EXPECT_EQ(FirstRun(task).last.error_description, "Start test failed");
  EXPECT_THAT(Errors(), testing::ElementsAre("(test 60) bind: Address already in use"));
}

TEST_F(UdpSenderTest, SilenceIsAHostThatIsNotResponding) {
  responder.control = [](const Bytes&) { return std::vector<Bytes>{}; };
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.control_timeout = 50;
  EXPECT_EQ(FirstRun(task).last.error_description,
            "control phase failed: destination host is not responding");
  EXPECT_THAT(Errors(), testing::ElementsAre(
                            "(test 60) Control phase failed: destination host is not responding"));
}

TEST_F(UdpSenderTest, ClosedPortIsARefusal) {
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.control_phase.dst.sin_port = htons(9);
  task.control_timeout = 10000;
  EXPECT_EQ(FirstRun(task).last.error_description, "control phase failed: connection refused");
  EXPECT_THAT(Errors(),
              testing::ElementsAre(
                  "(test 60) Control phase failed: connection refused. The responder may not "
                  "be running or is using a different port"));
}

TEST_F(UdpSenderTest, ForeignVersionIsRejected) {
  ControlPhaseMessage message;
  message.version = 1;
  const std::string text = "control phase failed: invalid response control phase protocol version";
  EXPECT_EQ(RunAnsweredWith(ScriptedResponder::Encoded(message)).error_description, text);
  EXPECT_THAT(Errors(),
              testing::ElementsAre(
                  "(test 60) Control phase failed: invalid response control phase protocol "
                  "version"));
}

TEST_F(UdpSenderTest, HeaderStatusIsReported) {
  ControlPhaseMessage message;
  message.status = SlaControlStatus::kUnknownInternalError;
  EXPECT_EQ(RunAnsweredWith(ScriptedResponder::Encoded(message)).error_description,
            "control phase failed: command header status: unknown internal error");
  EXPECT_THAT(Errors(),
              testing::ElementsAre(
                  "(test 60) Control phase failed: command header status: unknown internal error"));
}

TEST_F(UdpSenderTest, LaterFindingsOverwriteEarlierOnes) {
  ControlPhaseMessage message;
  message.status = SlaControlStatus::kRequestedPortIsBusy;
  message.auth_status = SlaControlStatus::kAuthenticationFail;
  EXPECT_EQ(RunAnsweredWith(ScriptedResponder::Encoded(message)).error_description,
            "control phase authentication failed: authentication fail");
  EXPECT_THAT(Errors(),
              testing::ElementsAre(
                  "(test 60) Control phase failed: command header status: requested port is busy",
                  "(test 60) Control phase authentication failed: authentication fail"));
}

TEST_F(UdpSenderTest, MeasurementStatusIsReported) {
  ControlPhaseMessage message;
  message.status = SlaControlStatus::kFail;
  message.measurement_status = SlaControlStatus::kUnsupportedRole;
  EXPECT_EQ(RunAnsweredWith(ScriptedResponder::Encoded(message)).error_description,
            "control phase measurement failed: unsupported role");
}

TEST_F(UdpSenderTest, HeaderFailAloneLeavesTheTextAsItWas) {
  ControlPhaseMessage message;
  message.status = SlaControlStatus::kFail;
  const SlaTaskMetrics last = RunAnsweredWith(ScriptedResponder::Encoded(message));
  EXPECT_EQ(last.status, RunResult::kFail);
  EXPECT_EQ(last.error_description, "");
  EXPECT_TRUE(Errors().empty());
}

TEST_F(UdpSenderTest, EmptyResponseFailsWithoutAText) {
  const SlaTaskMetrics last = RunAnsweredWith({});
  EXPECT_EQ(last.status, RunResult::kFail);
  EXPECT_EQ(last.error_description, "");
}

// One byte 2 reads as a successful response with measurement port 0: probes to port 0 cannot be
// sent.
TEST_F(UdpSenderTest, OneByteOfVersionTwoPassesAsAResponse) {
  const SlaTaskMetrics last = RunAnsweredWith({2});
  EXPECT_EQ(last.error_description, "timeout, no samples");
  EXPECT_THAT(test::TakeSyslogTexts(), Contains("(test 60) Invalid argument"));
}

TEST_F(UdpSenderTest, OneOtherByteFailsTheVersionCheck) {
  EXPECT_EQ(RunAnsweredWith({7}).error_description,
            "control phase failed: invalid response control phase protocol version");
}

TEST_F(UdpSenderTest, ShortResponseAfterALongOneSeesZeros) {
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.scheduler.time = 0;
  task.control_retry = 0;
  task.timeout = 50;
  int phases = 0;
  responder.control = [&](const Bytes&) {
    return std::vector<Bytes>{++phases == 1 ? responder.Accept() : Bytes{2}};
  };
  const auto test = boost::make_shared<UdpSender>(context.worker, task, context.Shared());
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(kId) >= 2; }));
  test->Stop(true);
  EXPECT_EQ(context.StatisticsOf(kId).last.error_description, "timeout, no samples");
}

TEST_F(UdpSenderTest, UnknownAlgorithmIsAnInternalError) {
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.auth = {SlaAuthMode::kPassword, static_cast<SlaAuthAlgorithm>(7), 0, "key"};
  EXPECT_EQ(FirstRun(task).last.error_description, "control phase failed: internal error");
  EXPECT_THAT(test::TakeSyslogTexts(), Contains("Unknown authentication algorithm on test 60"));
}

TEST_F(UdpSenderTest, FirstDumpShowsNoNonce) {
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  task.auth = {SlaAuthMode::kPassword, SlaAuthAlgorithm::kSha256, 0, "key"};
  FirstRun(task);
  EXPECT_THAT(
      test::TakeSyslogTexts(),
      Contains(HasSubstr("Rand number               : 00000000000000000000000000000000\n")));
}

TEST_F(UdpSenderTest, FixedSourcePortIsFreeForTheNextRun) {
  SlaTaskConfig task = Task(SlaTestType::kUdpEcho);
  {
    udp::socket free(context.worker, udp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
    task.measurement.src.sin_port = htons(free.local_endpoint().port());
  }
  task.scheduler.time = 0;
  const auto test = boost::make_shared<UdpSender>(context.worker, task, context.Shared());
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(kId) >= 5; }));
  test->Stop(true);
  EXPECT_EQ(context.StatisticsOf(kId).failed_count, 0U);
}

}  // namespace
}  // namespace ipsla
