// Hand-computed runs of the ICMP jitter calculation. Stamps count whole milliseconds.

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

using testing::ElementsAre;

constexpr std::uint16_t kIcmpJitterTask = 4306;

SlaTaskMetrics Calculate(std::vector<SlaPacketRecord> records) {
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kIcmpJitter);
  CalcIcmpMetric(kIcmpJitterTask, records, &metrics);
  return metrics;
}

SlaPacketRecord Sent(std::uint32_t ss, double send_ms) {
  SlaPacketRecord record;
  record.ss = ss;
  record.send_ms = send_ms;
  record.send_stamp = static_cast<std::uint64_t>(send_ms);
  return record;
}

SlaPacketRecord Answered(std::uint32_t ss, std::uint32_t id, double send_ms,
                         std::uint64_t remote_receive, std::uint64_t remote_transmit,
                         double receive_ms) {
  SlaPacketRecord record = Sent(ss, send_ms);
  record.id = id;
  record.state = SlaPacketState::kReceived;
  record.remote_receive_stamp = remote_receive;
  record.remote_transmit_stamp = remote_transmit;
  record.receive_ms = receive_ms;
  record.receive_stamp = static_cast<std::uint64_t>(receive_ms);
  return record;
}

// A reply whose peer stamped both times with `remote`.
SlaPacketRecord Stamped(std::uint32_t ss, std::uint32_t id, std::uint64_t remote) {
  return Answered(ss, id, 1000, remote, remote, 2000);
}

TEST(CalcIcmpMetric, AveragesAnUndisturbedRun) {
  // Probe 1: RTT 30.5, SD 1010 - 1000, DS 1030 - 1011. Probe 2: the peer's stamp lies before the
  // sending, RTT 20 split evenly. Probe 3: RTT 9.5, SD 3004 - 3000, DS 3009 - 3004.
  const SlaTaskMetrics metrics = Calculate({Answered(3, 2, 3000, 3004, 3004, 3009.5),
                                            Answered(1, 0, 1000.25, 1010, 1011, 1030.75),
                                            Answered(2, 1, 2000.5, 1500, 1500, 2020.5)});
  SlaTaskMetrics expected;
  expected.sd_smp_count = expected.ds_smp_count = expected.rtt_smp_count = 3;
  expected.rtt_min = 9.5;
  expected.rtt_avg = 20;  // 60 / 3
  expected.rtt_max = 30.5;
  expected.latency_sd_min = 4;
  expected.latency_sd_avg = 8;  // (10 + 10 + 4) / 3
  expected.latency_sd_max = 10;
  expected.latency_ds_min = 5;
  expected.latency_ds_avg = 34.0 / 3;  // (19 + 10 + 5) / 3
  expected.latency_ds_max = 19;
  expected.jitter_sd_sd = 2.8284271247461903;  // sqrt((4 + 4 + 16) / 3)
  expected.jitter_ds_sd = 5.792715732327589;   // sqrt((23^2 + 4^2 + 19^2) / 9 / 3)
  EXPECT_TRUE(SameMetrics(expected, metrics));
}

TEST(CalcIcmpMetric, BooksEveryLossToTheWayOut) {
  // Probe 2 of 4 is lost; the number left out by it is not late.
  const SlaTaskMetrics metrics =
      Calculate({Stamped(4, 2, 1012), Stamped(1, 0, 1010), Sent(2, 1000), Stamped(3, 1, 1011)});
  EXPECT_EQ(4, metrics.sd_smp_count);
  EXPECT_EQ(3, metrics.ds_smp_count);
  EXPECT_EQ(3, metrics.rtt_smp_count);
  EXPECT_EQ(1, metrics.sd_loss);
  EXPECT_EQ(25, metrics.sd_loss_pct);
  EXPECT_EQ(0, metrics.ds_loss);
  EXPECT_EQ(0, metrics.ds_loss_pct);
  EXPECT_EQ(0, metrics.sd_out_of_sequence);
  EXPECT_EQ(0, metrics.late_arrival);
}

TEST(CalcIcmpMetric, CountsOvertakenRepliesByOneWhateverTheGap) {
  // Stamps in order of arrival: 1100, 1500, 1200, 1300. The last two are behind 1500: no samples.
  const SlaTaskMetrics metrics = Calculate(
      {Stamped(4, 1, 1500), Stamped(1, 0, 1100), Stamped(2, 2, 1200), Stamped(3, 3, 1300)});
  EXPECT_EQ(2, metrics.ds_out_of_sequence);
  EXPECT_EQ(0, metrics.sd_out_of_sequence);
  EXPECT_EQ(2, metrics.late_arrival);
  EXPECT_EQ(4, metrics.sd_smp_count);
  EXPECT_EQ(2, metrics.ds_smp_count);
  EXPECT_EQ(2, metrics.rtt_smp_count);
  EXPECT_EQ(300, metrics.latency_sd_avg);  // (100 + 500) / 2
  EXPECT_EQ(700, metrics.latency_ds_avg);  // (900 + 500) / 2
}

TEST(CalcIcmpMetric, CountsProbesOvertakenOnTheWayOutByTheGap) {
  // The peer answers 1, 4, 2, 3: sequence numbers 2 and 3 are left out at first, nothing is lost.
  const SlaTaskMetrics metrics = Calculate(
      {Stamped(4, 1, 1200), Stamped(1, 0, 1100), Stamped(2, 2, 1300), Stamped(3, 3, 1400)});
  EXPECT_EQ(2, metrics.sd_out_of_sequence);
  EXPECT_EQ(0, metrics.ds_out_of_sequence);
  EXPECT_EQ(2, metrics.late_arrival);
  EXPECT_EQ(2, metrics.sd_smp_count);
  EXPECT_EQ(4, metrics.ds_smp_count);
  EXPECT_EQ(2, metrics.rtt_smp_count);
  EXPECT_EQ(
      500,
      metrics.latency_sd_avg);  // (100 + 200 + 300 + 400) / 2: all samples over the smaller count
}

TEST(CalcIcmpMetric, TakesRepliesOfTheSameMillisecondAsInOrder) {
  const SlaTaskMetrics metrics = Calculate({Stamped(2, 1, 1100), Stamped(1, 0, 1100)});
  EXPECT_EQ(0, metrics.ds_out_of_sequence);
  EXPECT_EQ(2, metrics.rtt_smp_count);
  EXPECT_EQ(1000, metrics.rtt_avg);
}

TEST(CalcIcmpMetric, TakesDistancesWhateverStampIsLarger) {
  SlaPacketRecord record = Answered(1, 0, 1000, 1010, 1040, 1030);
  record.send_stamp = 1012;
  const SlaTaskMetrics metrics = Calculate({record});
  EXPECT_EQ(2, metrics.latency_sd_avg);   // |1010 - 1012|
  EXPECT_EQ(10, metrics.latency_ds_avg);  // |1030 - 1040|
}

TEST(CalcIcmpMetric, SplitsTheRoundTripEvenlyWhenThePeersStampLiesOutside) {
  for (const std::uint64_t remote : {999U, 1031U, 0U, 0x80000000U}) {
    const SlaTaskMetrics metrics = Calculate({Answered(1, 0, 1000, remote, remote, 1030)});
    EXPECT_EQ(15, metrics.latency_sd_avg) << remote;
    EXPECT_EQ(15, metrics.latency_ds_avg) << remote;
  }
  for (const std::uint64_t remote : {1000U, 1030U}) {  // both ends are inside
    EXPECT_EQ(static_cast<double>(remote - 1000),
              Calculate({Answered(1, 0, 1000, remote, remote, 1030)}).latency_sd_avg);
  }
}

TEST(CalcIcmpMetric, CountsSkippedRecordsAndIgnoresOtherStates) {
  SlaPacketRecord skipped = Stamped(1, 0, 1100);
  skipped.state = SlaPacketState::kSkipped;
  SlaPacketRecord lost = Stamped(2, 1, 1100);
  lost.state = SlaPacketState::kLossSd;
  const SlaTaskMetrics metrics = Calculate({lost, skipped});
  EXPECT_EQ(1, metrics.skipped);
  EXPECT_EQ(0, metrics.sd_smp_count);
  EXPECT_EQ(0, metrics.sd_loss_pct);
  EXPECT_EQ(0, metrics.ds_loss_pct);
  EXPECT_TRUE(std::isnan(metrics.latency_sd_avg));
  EXPECT_EQ(kMax, metrics.latency_sd_min);
}

TEST(CalcIcmpMetric, LogsPacketsAndTableToBothCopies) {
  constexpr std::uint16_t kLoggedId = 4307;
  FreshLogFile(kLoggedId);
  TakeSyslog();
  SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kIcmpJitter);
  std::vector<SlaPacketRecord> records{Sent(2, 2000), Answered(1, 0, 1000.25, 1010, 1011, 1030.75)};
  CalcIcmpMetric(kLoggedId, records, &metrics);
  EXPECT_THAT(
      TakeSyslogTexts(),
      ElementsAre("  ID  |  SS  |    RT    |  STATE  ",
                  "Packet #1\n\t<-------------------------------[30.500  "
                  "]------------------------------->\n"
                  "\t[    S   ] ---- (   SD   ) ---- [    D   ] ---- (   DS   ) ---- [    S   ]\n"
                  "\t[1000    ] ---- (10.000  ) ---- [1011    ] ---- (19.000  ) ---- [1030    ]",
                  "  ID  |  SS  |    RT    |  STATE  ", " 0    | 2    | 0        | loss ds",
                  " 0    | 1    | 1011     | received"));
  EXPECT_THAT(
      ReadLogFile(kLoggedId),
      ElementsAre("  ID  |  SS  |    RT    |  STATE  ", "Packet #1",
                  "\t<-------------------------------[30.500  ]------------------------------->",
                  "\t[    S   ] ---- (   SD   ) ---- [    D   ] ---- (   DS   ) ---- [    S   ]",
                  "\t[1000    ] ---- (10.000  ) ---- [1011    ] ---- (19.000  ) ---- [1030    ]",
                  "  ID  |  SS  |    RT    |  STATE  ", " 0    | 2    | 0        | loss ds",
                  " 0    | 1    | 1011     | received"));
}

}  // namespace
}  // namespace ipsla::test
