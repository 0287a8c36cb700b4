// Hand-computed runs of the UDP jitter calculation. Stamps count 10 ns: 100000 to the millisecond.

#include <endian.h>

#include <cmath>
#include <limits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sender/jitter_fixture.h"
#include "sender/same_metrics.h"
#include "sender/sender_metric_funcs.h"
#include "support/recording_syslog.h"

namespace ipsla::test {
namespace {

using testing::Contains;
using testing::ElementsAre;

constexpr std::uint16_t kUdpJitterTask = 4304;
constexpr std::uint32_t kRunBudgetMs =
    1270;  // "timeout" 1000, "interval" 20, "num-packets" 10: 1000 + (20 + 7) x 10
constexpr const char* kBeforeSending =
    "Received the package before sending it ... Change state received -> SLA_PACKET_SKIP_STATE";
constexpr const char* kAfterTimeout =
    "Received the package after timeout ... Change state received -> "
    "SLA_PACKET_SKIP_STATE";

SlaPacketRecord Sent(std::uint32_t ss) {
  SlaPacketRecord record;
  record.ss = ss;
  record.send_stamp = 1000 * kMs * ss;
  return record;
}

// A probe sent at ss seconds that reached the responder `sd` ms later and came back after another
// `ds` ms.
SlaPacketRecord Answered(std::uint32_t ss, std::uint32_t id, std::uint32_t rs, std::uint64_t sd,
                         std::uint64_t ds) {
  SlaPacketRecord record = Sent(ss);
  record.id = id;
  record.rs = rs;
  record.state = SlaPacketState::kReceived;
  record.remote_receive_stamp = record.remote_transmit_stamp = record.send_stamp + sd * kMs;
  record.receive_stamp = record.remote_transmit_stamp + ds * kMs;
  return record;
}

SlaTaskMetrics Calculate(std::vector<SlaPacketRecord> records, std::uint32_t responder_count,
                         std::uint32_t budget_ms = kRunBudgetMs) {
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
  CalcJitterMetrics(kUdpJitterTask, records, &metrics, responder_count, budget_ms, false);
  return metrics;
}

TEST(CalcJitterMetrics, AveragesAnUndisturbedRun) {
  // Slots 0, 1, 2 hold probes 3, 1, 2. SD 10, 14, 12; DS 20, 22, 12; RTT 30, 36, 24.
  const SlaTaskMetrics metrics = Calculate(
      {Answered(3, 2, 3, 12, 12), Answered(1, 0, 1, 10, 20), Answered(2, 1, 2, 14, 22)}, 3);
  SlaTaskMetrics expected;
  expected.sd_smp_count = expected.ds_smp_count = expected.rtt_smp_count = 3;
  expected.rtt_min = 24;
  expected.rtt_avg = 30;  // 90 / 3
  expected.rtt_max = 36;
  expected.latency_sd_min = 10;
  expected.latency_sd_avg = 12;  // 36 / 3
  expected.latency_sd_max = 14;
  expected.latency_ds_min = 12;
  expected.latency_ds_avg = 18;  // 54 / 3
  expected.latency_ds_max = 22;
  expected.jitter_sd_sd = 1.632993161855452;  // sqrt((4 + 4 + 0) / 3)
  expected.jitter_ds_sd = 4.320493798938574;  // sqrt((4 + 16 + 36) / 3)
  EXPECT_TRUE(SameMetrics(expected, metrics));
}

TEST(CalcJitterMetrics, TellsTheDirectionOfALossByTheRespondersCounter) {
  // Probe 2 lost on the way out, probe 4 on the way back: counters 1, 2, 4 come back with probes 1,
  // 3, 5.
  const SlaTaskMetrics metrics = Calculate({Answered(5, 2, 4, 12, 12), Answered(1, 0, 1, 10, 20),
                                            Sent(2), Answered(3, 1, 2, 14, 22), Sent(4)},
                                           4);
  SlaTaskMetrics expected;
  expected.sd_smp_count = 5;
  expected.ds_smp_count = expected.rtt_smp_count = 3;
  expected.sd_loss = 1;       // 5 - 4
  expected.ds_loss = 1;       // (5 - 3) - 1
  expected.sd_loss_pct = 20;  // 1 / 5
  expected.ds_loss_pct = 25;  // 1 / (5 - 1)
  // Left out: sequence numbers 2 and 4, counter 3. Two probes are lost, so none of them came late.
  expected.rtt_min = 24;
  expected.rtt_avg = 30;
  expected.rtt_max = 36;
  expected.latency_sd_min = 10;
  expected.latency_sd_avg = 12;
  expected.latency_sd_max = 14;
  expected.latency_ds_min = 12;
  expected.latency_ds_avg = 18;
  expected.latency_ds_max = 22;
  // By arrival order (lost probes have 0, like the first reply) the positions are 1, 2, 4, 3, 5; of
  // the three visited only the first holds a sample: sqrt((10 - 12)^2 / 3) and sqrt((20 - 18)^2 /
  // 3).
  expected.jitter_sd_sd = 1.1547005383792515;
  expected.jitter_ds_sd = 1.1547005383792515;
  EXPECT_TRUE(SameMetrics(expected, metrics));
}

TEST(CalcJitterMetrics, CountsAReplyOvertakenOnTheWayBackAsLate) {
  // The replies to 1, 3, 2 arrive in this order; the third has a lower counter than the one before
  // it: no sample.
  const SlaTaskMetrics metrics = Calculate(
      {Answered(3, 1, 3, 12, 12), Answered(1, 0, 1, 10, 20), Answered(2, 2, 2, 14, 22)}, 3);
  SlaTaskMetrics expected;
  expected.sd_smp_count = 3;
  expected.ds_smp_count = 2;  // 3 - 1
  expected.rtt_smp_count = 2;
  expected.ds_out_of_sequence = 1;
  expected.late_arrival = 1;
  expected.rtt_min = 24;
  expected.rtt_avg = 27;  // (30 + 24) / 2
  expected.rtt_max = 30;
  expected.latency_sd_min = 10;
  expected.latency_sd_avg = 11;  // (10 + 12) / 2
  expected.latency_sd_max = 12;
  expected.latency_ds_min = 12;
  expected.latency_ds_avg = 16;  // (20 + 12) / 2
  expected.latency_ds_max = 20;
  expected.jitter_sd_sd = 1;  // sqrt((1 + 1) / 2)
  expected.jitter_ds_sd = 4;  // sqrt((16 + 16) / 2)
  EXPECT_TRUE(SameMetrics(expected, metrics));
}

TEST(CalcJitterMetrics, CountsAProbeOvertakenOnTheWayOutAsLate) {
  // The responder sees 1, 3, 2 and answers in this order: every reply is a sample, one sequence
  // number is out of order.
  const SlaTaskMetrics metrics = Calculate(
      {Answered(3, 1, 2, 12, 12), Answered(1, 0, 1, 10, 20), Answered(2, 2, 3, 14, 22)}, 3);
  SlaTaskMetrics expected;
  expected.sd_smp_count = 2;  // 3 - 1
  expected.ds_smp_count = 3;
  expected.rtt_smp_count = 2;
  expected.sd_out_of_sequence = 1;
  expected.late_arrival = 1;
  expected.rtt_min = 24;
  expected.rtt_avg = 45;  // (30 + 24 + 36) / 2: all three samples over the smaller count
  expected.rtt_max = 36;
  expected.latency_sd_min = 10;
  expected.latency_sd_avg = 18;  // 36 / 2
  expected.latency_sd_max = 14;
  expected.latency_ds_min = 12;
  expected.latency_ds_avg = 27;  // 54 / 2
  expected.latency_ds_max = 22;
  expected.jitter_sd_sd = 7.0710678118654755;  // positions of probes 1 and 3: sqrt((64 + 36) / 2)
  expected.jitter_ds_sd = 11.704699910719626;  // sqrt((49 + 225) / 2)
  EXPECT_TRUE(SameMetrics(expected, metrics));
}

TEST(CalcJitterMetrics, SkipsAReplyFromBeforeItsSendingAndExcludesItFromEveryCount) {
  TakeSyslog();
  SlaPacketRecord early = Answered(2, 1, 2, 5, 5);
  early.receive_stamp = early.send_stamp - 1;
  std::vector<SlaPacketRecord> records{early, Answered(1, 0, 1, 10, 20)};
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
  CalcJitterMetrics(kUdpJitterTask, records, &metrics, 2, kRunBudgetMs, false);
  EXPECT_EQ(1, metrics.skipped);
  EXPECT_EQ(1, metrics.sd_smp_count);
  EXPECT_EQ(1, metrics.ds_smp_count);
  EXPECT_EQ(1, metrics.rtt_smp_count);
  EXPECT_EQ(30, metrics.rtt_avg);
  EXPECT_EQ(-1, metrics.sd_loss);  // 1 sample - 2 counted by the responder
  EXPECT_EQ(1, metrics.ds_loss);   // (1 - 1) - (-1)
  EXPECT_EQ(SlaPacketState::kSkipped, records[1].state);
  EXPECT_THAT(TakeSyslogTexts(), Contains(kBeforeSending));
}

TEST(CalcJitterMetrics, SkipsAReplyBeyondTheTimeBudgetOnly) {
  TakeSyslog();
  SlaPacketRecord just_in_time = Answered(1, 0, 1, 100, 0);
  just_in_time.receive_stamp = just_in_time.send_stamp + kRunBudgetMs * kMs;
  SlaPacketRecord too_late = Answered(2, 1, 2, 100, 0);
  too_late.receive_stamp = too_late.send_stamp + kRunBudgetMs * kMs + 1;
  std::vector<SlaPacketRecord> records{too_late, just_in_time};
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
  CalcJitterMetrics(kUdpJitterTask, records, &metrics, 2, kRunBudgetMs, false);
  EXPECT_EQ(1, metrics.skipped);
  EXPECT_EQ(1, metrics.rtt_smp_count);
  EXPECT_EQ(1270, metrics.rtt_avg);
  EXPECT_EQ(SlaPacketState::kReceived, records[0].state);
  EXPECT_EQ(SlaPacketState::kSkipped, records[1].state);
  EXPECT_THAT(TakeSyslogTexts(), Contains(kAfterTimeout).Times(1));
}

TEST(CalcJitterMetrics, ComparesTheBudgetIn64Bits) {
  // 42950 ms are 4295000000 stamps, more than 32 bits hold; a budget cut to 32 bits would be 32704
  // stamps.
  const SlaTaskMetrics metrics = Calculate({Answered(1, 0, 1, 20000, 22000)}, 1, 42950);
  EXPECT_EQ(0, metrics.skipped);
  EXPECT_EQ(42000, metrics.rtt_avg);
}

TEST(CalcJitterMetrics, CountsASkippedRecordOnce) {
  SlaPacketRecord skipped = Answered(1, 0, 1, 5, 5);
  skipped.state = SlaPacketState::kSkipped;
  SlaPacketRecord turned = Answered(2, 1, 2, 5, 5);
  turned.receive_stamp = 0;
  const SlaTaskMetrics metrics = Calculate({turned, skipped}, 2);
  EXPECT_EQ(2, metrics.skipped);
  EXPECT_EQ(0, metrics.sd_smp_count);
}

TEST(CalcJitterMetrics, SplitsTheRoundTripEvenlyWhenTheRespondersStampLiesOutside) {
  for (const std::uint64_t remote_ms : {999U, 1031U, 0U, 86399999U}) {
    SlaPacketRecord record = Answered(1, 0, 1, 10, 20);
    record.remote_transmit_stamp = remote_ms * kMs;
    const SlaTaskMetrics metrics = Calculate({record}, 1);
    EXPECT_EQ(30, metrics.rtt_avg) << remote_ms;
    EXPECT_EQ(15, metrics.latency_sd_avg) << remote_ms;
    EXPECT_EQ(15, metrics.latency_ds_avg) << remote_ms;
  }
}

TEST(CalcJitterMetrics, ComparesTheRespondersStampInWholeMilliseconds) {
  // Sent at 1000.5, answered at 1000.2 of the responder's clock, received at 1003: the same whole
  // millisecond counts as inside, and distances are absolute.
  SlaPacketRecord record = Answered(1, 0, 1, 0, 0);
  record.send_stamp = 1000 * kMs + 50000;
  record.remote_transmit_stamp = 1000 * kMs + 20000;
  record.receive_stamp = 1003 * kMs;
  const SlaTaskMetrics metrics = Calculate({record}, 1);
  EXPECT_DOUBLE_EQ(2.5, metrics.rtt_avg);
  EXPECT_NEAR(0.3, metrics.latency_sd_avg, 1e-9);
  EXPECT_NEAR(2.8, metrics.latency_ds_avg, 1e-9);
}

TEST(CalcJitterMetrics, OfARunWithoutAnyReplyBooksTheLossByTheRespondersCount) {
  struct Case {
    std::uint32_t responder_count;
    std::int32_t sd_loss;
    std::int32_t ds_loss;
    double sd_pct;
    double ds_pct;
  };
  for (const Case& c : {Case{0, 4, 0, 100, 0}, Case{1, 3, 1, 75, 100}, Case{4, 0, 4, 0, 100}}) {
    std::vector<SlaPacketRecord> records{Sent(4), Sent(1), Sent(2), Sent(3)};
    SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
    CalcJitterMetrics(kUdpJitterTask, records, &metrics, c.responder_count, kRunBudgetMs, false);
    EXPECT_EQ(4, metrics.sd_smp_count);
    EXPECT_EQ(0, metrics.rtt_smp_count);
    EXPECT_EQ(c.sd_loss, metrics.sd_loss);
    EXPECT_EQ(c.ds_loss, metrics.ds_loss);
    EXPECT_EQ(c.sd_pct, metrics.sd_loss_pct);
    EXPECT_EQ(c.ds_pct, metrics.ds_loss_pct);
    EXPECT_TRUE(std::isnan(metrics.rtt_avg));
    EXPECT_TRUE(std::isnan(metrics.jitter_sd_sd));
    EXPECT_EQ(kMax, metrics.rtt_min);
    EXPECT_EQ(-kMax, metrics.latency_ds_max);
    for (const SlaPacketRecord& record : records) EXPECT_EQ(SlaPacketState::kLossDs, record.state);
  }
}

TEST(CalcJitterMetrics, LeavesPercentagesZeroWithoutASample) {
  SlaPacketRecord skipped = Answered(1, 0, 1, 5, 5);
  skipped.state = SlaPacketState::kSkipped;
  const SlaTaskMetrics metrics = Calculate({skipped}, 0);
  EXPECT_EQ(0, metrics.sd_loss_pct);  // 0 samples
  EXPECT_EQ(0, metrics.ds_loss_pct);  // 0 - 0
}

TEST(CalcJitterMetrics, WrapsCountersIn32Bits) {
  // Counters 2^32 - 1 and then 5: the number expected after the largest one is 0, so 5 leaves out 5
  // more. Left out: (2^32 - 1) - 0 - 1 = 2^32 - 2, plus 5: 3 in 32 bits.
  const SlaTaskMetrics metrics =
      Calculate({Answered(2, 1, 5, 1, 1), Answered(1, 0, 0xFFFFFFFFU, 1, 1)}, 0xFFFFFFFFU);
  EXPECT_EQ(3, metrics.ds_out_of_sequence);
  EXPECT_EQ(3, metrics.sd_loss);  // 2 - (2^32 - 1)
  EXPECT_EQ(-3, metrics.ds_loss);
  EXPECT_EQ(-1, metrics.ds_smp_count);  // 2 - 3
  EXPECT_EQ(-1, metrics.rtt_smp_count);
  EXPECT_EQ(-4, metrics.rtt_avg);  // (2 + 2) / -1
  EXPECT_EQ(0, metrics.jitter_sd_sd);
}

TEST(CalcJitterMetrics, TakesRepeatedCountersAsSamples) {
  // A responder that sends counter 0, or the same counter again, is neither ahead nor behind.
  const SlaTaskMetrics metrics = Calculate({Answered(2, 1, 0, 3, 3), Answered(1, 0, 0, 1, 1)}, 0);
  EXPECT_EQ(2, metrics.rtt_smp_count);
  EXPECT_EQ(4, metrics.rtt_avg);  // (6 + 2) / 2
}

TEST(CalcJitterMetrics, VisitsOnlyTheFirstPositionsForDeviationsAndLeavesZerosOut) {
  // SD 0 (left out, exactly 0), 4; DS 6, 2: averages 2 and 4. SD: sqrt((4 - 2)^2 / 2); DS: sqrt((4
  // + 4) / 2).
  const SlaTaskMetrics metrics = Calculate({Answered(2, 1, 2, 4, 2), Answered(1, 0, 1, 0, 6)}, 2);
  EXPECT_DOUBLE_EQ(1.4142135623730951, metrics.jitter_sd_sd);
  EXPECT_DOUBLE_EQ(2, metrics.jitter_ds_sd);
}

TEST(CalcJitterMetrics, SurvivesMoreSamplesThanRecords) {
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
  metrics.sd_smp_count = metrics.ds_smp_count = 1000;
  std::vector<SlaPacketRecord> records{Answered(1, 0, 1, 10, 20)};
  CalcJitterMetrics(kUdpJitterTask, records, &metrics, 1, kRunBudgetMs, false);
  EXPECT_EQ(1001, metrics.rtt_smp_count);
  EXPECT_DOUBLE_EQ(30.0 / 1001, metrics.rtt_avg);
}

TEST(CalcJitterMetrics, OfNoRecordsIsNotANumber) {
  const SlaTaskMetrics metrics = Calculate({}, 0);
  EXPECT_TRUE(std::isnan(metrics.rtt_avg));
  EXPECT_EQ(0, metrics.sd_loss_pct);
}

TEST(CalcJitterMetrics, DoesNotWriteJitterExtremesAndAverages) {
  const SlaTaskMetrics metrics = Calculate({Answered(1, 0, 1, 10, 20)}, 1);
  EXPECT_EQ(0, metrics.jitter_sd_min);
  EXPECT_EQ(0, metrics.jitter_sd_avg);
  EXPECT_EQ(0, metrics.jitter_sd_max);
  EXPECT_EQ(0, metrics.jitter_ds_min);
  EXPECT_EQ(0, metrics.jitter_ds_avg);
  EXPECT_EQ(0, metrics.jitter_ds_max);
}

std::uint64_t NtpWire(std::uint64_t unix_seconds, std::uint32_t fraction) {
  return htobe64(((unix_seconds + 2208988800U) << 32U) | fraction);
}

TEST(CalcJitterMetrics, TakesNtpStampsInWholeMilliseconds) {
  SlaPacketRecord record;
  record.ss = record.rs = 1;
  record.state = SlaPacketState::kReceived;
  record.send_stamp = 1;
  record.receive_stamp = 2;
  record.ntp_t1 = NtpWire(1000, 0x40000000);  // 1000250 ms
  record.ntp_t2 = NtpWire(1000, 0x801A36E2);  // 1000500.4 ms
  record.ntp_t3 = NtpWire(1001, 0x40000000);  // 1001250 ms
  record.ntp_t4 = NtpWire(1001, 0xC039A6A3);  // 1001750.88 ms
  std::vector<SlaPacketRecord> records{record};
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
  CalcJitterMetrics(kUdpJitterTask, records, &metrics, 1, kRunBudgetMs, true);
  EXPECT_EQ(1500, metrics.rtt_avg);        // T4 - T1
  EXPECT_EQ(250, metrics.latency_sd_avg);  // |T2 - T1|
  EXPECT_EQ(500, metrics.latency_ds_avg);  // |T4 - T3|
}

TEST(CalcJitterMetrics, OfNtpRecordsAsTheyAreFilledHasNoUsableSample) {
  // The receive path of the NTP type stores no receive stamp and nothing stores T1.
  TakeSyslog();
  std::vector<SlaPacketRecord> records(3);
  for (std::uint32_t i = 0; i < 3; ++i) {
    records[i] = Answered(i + 1, i, (i + 1) << 16U, 0, 0);
    records[i].receive_stamp = 0;
    records[i].remote_transmit_stamp = 0;
    records[i].ntp_t2 = records[i].ntp_t3 = records[i].ntp_t4 = NtpWire(1000, 0);
  }
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
  CalcJitterMetrics(kUdpJitterTask, records, &metrics, 3, kRunBudgetMs, true);
  EXPECT_EQ(3, metrics.skipped);
  EXPECT_EQ(0, metrics.sd_smp_count);
  EXPECT_EQ(0, metrics.rtt_smp_count);
  EXPECT_TRUE(std::isnan(metrics.rtt_avg));
  EXPECT_EQ(kMax, metrics.rtt_min);
  EXPECT_THAT(TakeSyslogTexts(), Contains(kBeforeSending).Times(3));
}

TEST(CalcJitterMetrics, LogsPacketsAndTableToBothCopies) {
  constexpr std::uint16_t kLoggedId = 4305;
  FreshLogFile(kLoggedId);
  TakeSyslog();
  std::vector<SlaPacketRecord> records{Sent(2), Answered(1, 0, 70000, 10, 20)};
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
  CalcJitterMetrics(kLoggedId, records, &metrics, 1, kRunBudgetMs, false);
  EXPECT_THAT(
      TakeSyslogTexts(),
      ElementsAre("  ID  |  SS  |  RS  |  STATE  ",
                  "Packet #70000\n\t<-------------------------------[30.000  "
                  "]------------------------------->\n"
                  "\t[    S   ] ---- (   SD   ) ---- [    D   ] ---- (   DS   ) ---- [    S   ]\n"
                  "\t[100000000] ---- (10.000  ) ---- [101000000] ---- (20.000  ) ---- [103000000]",
                  "\n  ID  |  SS  |  RS  |  STATE  ", " 0    | 2    | 0    | loss ds",
                  " 0    | 1    | 70000 | received"));
  EXPECT_THAT(
      ReadLogFile(kLoggedId),
      ElementsAre("  ID  |  SS  |  RS  |  STATE  ", "Packet #70000",
                  "\t<-------------------------------[30.000  ]------------------------------->",
                  "\t[    S   ] ---- (   SD   ) ---- [    D   ] ---- (   DS   ) ---- [    S   ]",
                  "\t[100000000] ---- (10.000  ) ---- [101000000] ---- (20.000  ) ---- [103000000]",
                  "", "  ID  |  SS  |  RS  |  STATE  ", " 0    | 2    | 0    | loss ds",
                  " 0    | 1    | 70000 | received"));
}

TEST(CalcJitterMetrics, KeepsRingOrderAmongEqualKeys) {
  TakeSyslog();
  std::vector<SlaPacketRecord> records{Sent(4), Answered(1, 0, 0, 1, 1), Sent(2), Sent(3)};
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
  CalcJitterMetrics(kUdpJitterTask, records, &metrics, 0, kRunBudgetMs, false);
  const auto probe = [](std::uint32_t ss) { return testing::Field(&SlaPacketRecord::ss, ss); };
  EXPECT_THAT(records, ElementsAre(probe(4), probe(1), probe(2), probe(3)));
}

}  // namespace
}  // namespace ipsla::test
