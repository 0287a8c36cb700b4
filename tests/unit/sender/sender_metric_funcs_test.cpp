#include "sender/sender_metric_funcs.h"

#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sender/jitter_fixture.h"
#include "sender/same_metrics.h"
#include "support/recording_syslog.h"

namespace ipsla::test {
namespace {

using testing::ElementsAre;

SlaTaskMetrics UsedMetrics() {
  SlaTaskMetrics metrics;
  metrics.status = RunResult::kFail;
  metrics.error_description = "Start test failed";
  metrics.start_time = 1700000000;
  metrics.finish_time = 1700000001;
  metrics.sd_smp_count = metrics.ds_smp_count = metrics.rtt_smp_count = 7;
  metrics.sd_loss = metrics.ds_loss = metrics.duplicate = metrics.skipped = 3;
  metrics.sd_loss_pct = metrics.jitter_sd_sd = metrics.jitter_ds_max = metrics.rtt_avg = 2.5;
  return metrics;
}

TEST(ResetMetrics, ClearsEverythingButTheStartTimeForEchoTypes) {
  for (const SlaTestType type : {SlaTestType::kUdpEcho, SlaTestType::kIcmpEcho}) {
    SlaTaskMetrics metrics = UsedMetrics();
    ResetMetrics(type, &metrics);
    SlaTaskMetrics expected;
    expected.start_time = 1700000000;
    EXPECT_EQ(expected, metrics);
  }
}

TEST(ResetMetrics, PresetsTheThreeCalculatedTriplesForJitterTypes) {
  for (const SlaTestType type :
       {SlaTestType::kUdpJitter, SlaTestType::kUdpJitterNtp, SlaTestType::kIcmpJitter}) {
    SlaTaskMetrics metrics = UsedMetrics();
    ResetMetrics(type, &metrics);
    SlaTaskMetrics expected;
    expected.start_time = 1700000000;
    expected.latency_sd_min = expected.latency_ds_min = expected.rtt_min = kMax;
    expected.latency_sd_max = expected.latency_ds_max = expected.rtt_max = -kMax;
    EXPECT_EQ(expected, metrics);
  }
}

SlaPacketRecord EchoRecord(std::uint32_t ss, SlaPacketState state, double send_ms,
                           double receive_ms) {
  SlaPacketRecord record;
  record.ss = ss;
  record.state = state;
  record.send_ms = send_ms;
  record.receive_ms = receive_ms;
  return record;
}

TEST(CalcEchoMetric, AveragesRoundTripsOfAnsweredProbes) {
  // Slots 0, 1, 2 hold probes 3, 1, 2. Round trips 4.5, 1.5 and 3: average 9 / 3.
  std::array records{EchoRecord(3, SlaPacketState::kReceived, 1040, 1044.5),
                     EchoRecord(1, SlaPacketState::kReceived, 1000, 1001.5),
                     EchoRecord(2, SlaPacketState::kReceived, 1020, 1023)};
  SlaTaskMetrics metrics;
  CalcEchoMetric(4302, records, &metrics);
  SlaTaskMetrics expected;
  expected.sd_smp_count = expected.ds_smp_count = expected.rtt_smp_count = 3;
  expected.rtt_avg = 3;
  expected.rtt_max = 4.5;
  EXPECT_TRUE(SameMetrics(expected, metrics));
}

TEST(CalcEchoMetric, AlwaysReportsMinimumZeroFromARunStart) {
  std::array records{EchoRecord(1, SlaPacketState::kReceived, 1000, 1010)};
  for (const SlaTestType type : {SlaTestType::kUdpEcho, SlaTestType::kIcmpEcho}) {
    SlaTaskMetrics metrics = UsedMetrics();
    ResetMetrics(type, &metrics);
    CalcEchoMetric(4302, records, &metrics);
    EXPECT_EQ(0, metrics.rtt_min);
    EXPECT_EQ(10, metrics.rtt_max);
  }
}

TEST(CalcEchoMetric, CountsUnansweredProbesOnTheWayOutOnlyAndLeavesTheirState) {
  std::array records{EchoRecord(1, SlaPacketState::kSent, 1000, 0),
                     EchoRecord(2, SlaPacketState::kReceived, 1020, 1022),
                     EchoRecord(3, SlaPacketState::kSkipped, 1040, 1041),
                     EchoRecord(4, SlaPacketState::kLossSd, 1, 2)};
  SlaTaskMetrics metrics;
  CalcEchoMetric(4302, records, &metrics);
  SlaTaskMetrics expected;
  expected.sd_smp_count = 2;  // probes 1 and 2; the other states count nowhere
  expected.ds_smp_count = 1;
  expected.rtt_smp_count = 1;
  expected.rtt_avg = 2;
  expected.rtt_max = 2;
  EXPECT_TRUE(SameMetrics(expected, metrics));
  EXPECT_EQ(SlaPacketState::kSent, records[0].state);
}

TEST(CalcEchoMetric, WithoutAnAnswerTheAverageIsNotANumber) {
  std::array records{EchoRecord(1, SlaPacketState::kSent, 1000, 0)};
  SlaTaskMetrics metrics;
  CalcEchoMetric(4302, records, &metrics);
  EXPECT_EQ(0, metrics.rtt_smp_count);
  EXPECT_TRUE(std::isnan(metrics.rtt_avg));
}

TEST(CalcEchoMetric, LogsEveryAnsweredPacketToBothCopies) {
  constexpr std::uint16_t kEchoTask = 4303;
  FreshLogFile(kEchoTask);
  TakeSyslog();
  std::array records{EchoRecord(2, SlaPacketState::kReceived, 1000.25, 1012.75),
                     EchoRecord(1, SlaPacketState::kSent, 980, 0)};
  SlaTaskMetrics metrics;
  CalcEchoMetric(kEchoTask, records, &metrics);
  EXPECT_THAT(TakeSyslogTexts(),
              ElementsAre("Packet #2\n\t[      S     ] ---- (   SDS  ) ---- [      S     ]\n"
                          "\t[1000.250    ] ---- (12.500  ) ---- [1012.750    ]"));
  EXPECT_THAT(ReadLogFile(kEchoTask),
              ElementsAre("Packet #2", "\t[      S     ] ---- (   SDS  ) ---- [      S     ]",
                          "\t[1000.250    ] ---- (12.500  ) ---- [1012.750    ]"));
}

SlaTaskMetrics StoredRun(RunResult status, double sd_min, double sd_avg, double sd_max) {
  SlaTaskMetrics run;
  run.status = status;
  run.jitter_sd_min = sd_min;
  run.jitter_sd_avg = sd_avg;
  run.jitter_sd_max = sd_max;
  run.jitter_ds_min = sd_min * 10;
  run.jitter_ds_avg = sd_avg * 10;
  run.jitter_ds_max = sd_max * 10;
  return run;
}

TEST(AggregateHistory, OfOneRunKeepsItsExtremesAndDoublesItsAverages) {
  const SlaTaskMetrics result = AggregateHistory({StoredRun(RunResult::kSuccessful, 1, 2, 3)});
  EXPECT_EQ(1, result.jitter_sd_min);
  EXPECT_EQ(4, result.jitter_sd_avg);  // (2 + 2) / 1
  EXPECT_EQ(3, result.jitter_sd_max);
  EXPECT_EQ(10, result.jitter_ds_min);
  EXPECT_EQ(40, result.jitter_ds_avg);
  EXPECT_EQ(30, result.jitter_ds_max);
}

TEST(AggregateHistory, CountsTheNewestRunTwiceInTheAverages) {
  const SlaTaskMetrics result = AggregateHistory(
      {StoredRun(RunResult::kSuccessful, 0.5, 1, 9), StoredRun(RunResult::kSuccessful, 2, 5, 7)});
  EXPECT_EQ(0.5, result.jitter_sd_min);
  EXPECT_EQ(5.5, result.jitter_sd_avg);  // (5 + 1 + 5) / 2
  EXPECT_EQ(9, result.jitter_sd_max);
  EXPECT_EQ(5, result.jitter_ds_min);
  EXPECT_EQ(55, result.jitter_ds_avg);
  EXPECT_EQ(90, result.jitter_ds_max);
}

TEST(AggregateHistory, LeavesFailedRunsOut) {
  const SlaTaskMetrics result = AggregateHistory({StoredRun(RunResult::kSuccessful, 3, 4, 5),
                                                  StoredRun(RunResult::kFail, 0, 100, 200),
                                                  StoredRun(RunResult::kSuccessful, 2, 6, 8)});
  EXPECT_EQ(2, result.jitter_sd_min);
  EXPECT_EQ(8, result.jitter_sd_avg);  // (6 + 4 + 6) / 2
  EXPECT_EQ(8, result.jitter_sd_max);
}

TEST(AggregateHistory, WithoutASuccessfulRunIsZero) {
  const SlaTaskMetrics result = AggregateHistory(
      {StoredRun(RunResult::kFail, 1, 2, 3), StoredRun(RunResult::kFail, 4, 5, 6)});
  EXPECT_EQ(0, result.jitter_sd_min);
  EXPECT_EQ(0, result.jitter_sd_avg);
  EXPECT_EQ(0, result.jitter_sd_max);
  EXPECT_EQ(0, result.jitter_ds_min);
  EXPECT_EQ(0, result.jitter_ds_avg);
  EXPECT_EQ(0, result.jitter_ds_max);
}

TEST(AggregateHistory, KeepsEveryOtherValueOfTheNewestRun) {
  SlaTaskMetrics oldest = StoredRun(RunResult::kSuccessful, 1, 2, 3);
  oldest.jitter_sd_sd = 50;
  oldest.rtt_avg = 60;
  SlaTaskMetrics newest = UsedMetrics();
  newest.status = RunResult::kSuccessful;
  newest.jitter_sd_sd = 0.25;
  newest.jitter_ds_sd = 0.75;
  SlaTaskMetrics expected = newest;
  expected.jitter_sd_min = 0;  // newest 0, oldest 1
  expected.jitter_sd_avg = 1;  // (0 + 2 + 0) / 2
  expected.jitter_sd_max = 3;
  expected.jitter_ds_min = 0;
  expected.jitter_ds_avg = 10;  // (0 + 20 + 0) / 2
  expected.jitter_ds_max = 30;
  EXPECT_EQ(expected, AggregateHistory({oldest, newest}));
}

}  // namespace
}  // namespace ipsla::test
