#include "sender/metric_report.h"

#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/log.h"
#include "sender/jitter_fixture.h"
#include "support/local_time_zone.h"
#include "support/recording_syslog.h"

namespace ipsla::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;

constexpr std::uint16_t kReportTask = 4308;

SlaTaskConfig Task(SlaTestType type) {
  SlaTaskConfig config;
  config.sla_id = kReportTask;
  config.sla_type = type;
  return config;
}

SlaTaskMetrics SampleRun() {
  SlaTaskMetrics m;
  m.start_time = 1721037600;  // 15 July 2024, 10:00:00 UTC
  m.finish_time = 1721037663;
  m.sd_pkt_count = 10;
  m.ds_pkt_count = 9;
  m.rtt_smp_count = 8;
  m.rtt_min = 0.5;
  m.rtt_avg = 1.25;
  m.rtt_max = 2;
  m.latency_sd_min = 0.1;
  m.latency_sd_avg = 0.2;
  m.latency_sd_max = 0.3;
  m.latency_ds_min = 0.4;
  m.latency_ds_avg = 0.5;
  m.latency_ds_max = 0.6;
  m.sd_smp_count = 7;
  m.ds_smp_count = 6;
  m.jitter_sd_min = 1.1;
  m.jitter_sd_avg = 1.2;
  m.jitter_sd_sd = 1.3;
  m.jitter_sd_max = 1.4;
  m.jitter_ds_min = 1.5;
  m.jitter_ds_avg = 1.6;
  m.jitter_ds_sd = 1.7;
  m.jitter_ds_max = 1.8;
  m.sd_loss = 1;
  m.sd_loss_pct = 12.345;
  m.ds_loss = 2;
  m.ds_loss_pct = 100;
  m.late_arrival = 3;
  m.skipped = 4;
  m.duplicate = 5;
  m.sd_out_of_sequence = 11;
  m.ds_out_of_sequence = 12;
  return m;
}

std::string Header(const char* type_and_number) {
  return std::string("SLA task:\n\tID: #4308\tType: ") + type_and_number +
         "\t\n\tStatus: successful\t\n\tStart time: 15.07.2024 12:00:00\tFinish time: 15.07.2024 "
         "12:01:03\n"
         "\tOperation time: ~63 seconds";
}

const char* const kPackets =
    "Packets Values:\n\tNumber of SD Packets: 10\n\tNumber of DS Packets: 9";
const char* const kRtt =
    "RTT Values:\n\tNumber Of RTT: 8\tRTT Min/Avg/Max: 0.500000/1.250000/2.000000 milliseconds";
const char* const kOneWay =
    "Latency one-way time:\n\tNumber of Latency one-way Samples: 8\n"
    "\tSource to Destination Latency one way Min/Avg/Max: 0.100000/0.200000/0.300000 milliseconds\n"
    "\tDestination to Source Latency one way Min/Avg/Max: 0.400000/0.500000/0.600000 milliseconds\n"
    "Jitter time:\n\tNumber of SD Jitter Samples: 7\n\tNumber of DS Jitter Samples: 6\n"
    "\tSource to Destination Jitter Min/Avg/SD/Max: 1.100000/1.200000/1.300000/1.400000 "
    "milliseconds\n"
    "\tDestination to Source Jitter Min/Avg/SD/Max: 1.500000/1.600000/1.700000/1.800000 "
    "milliseconds";
const char* const kLoss =
    "Packet Loss Values:\n\tLoss Source to Destination: 1 (12.35%)\tLoss Destination to Source: 2 "
    "(100.00%)\n"
    "\tPacket Late Arrival: 3\tPacket Skipped: 4\tDuplicate packets: 5";
const char* const kOrder =
    "Out Of Sequence Values:\n\tSource to Destination Out Of Sequence: 11"
    "\tDestination to Source Out Of Sequence: 12";

std::vector<std::string> Lines(const std::vector<std::string>& messages) {
  std::vector<std::string> lines;
  for (const std::string& message : messages) {
    std::size_t begin = 0;
    for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
      end = message.find('\n', begin);
      lines.push_back(message.substr(begin, end - begin));
    }
  }
  return lines;
}

class PrintMetricTest : public testing::Test {
 protected:
  PrintMetricTest() {
    FreshLogFile(kReportTask);
    TakeSyslog();
  }
  // Before the time zone goes back, which the log's writer looks at too.
  ~PrintMetricTest() override { ShutdownLog(); }

 private:
  LocalTimeZone zone_{"CET-1CEST,M3.5.0,M10.5.0/3"};
};

TEST_F(PrintMetricTest, OfAJitterRunHasEverySectionInBothCopies) {
  const std::pair<SlaTestType, const char*> types[] = {
      {SlaTestType::kUdpJitter, "udp-jitter (#2)"},
      {SlaTestType::kUdpJitterNtp, "udp-jitter-ntp (#3)"},
      {SlaTestType::kIcmpJitter, "icmp-jitter (#5)"}};
  for (const auto& [type, name] : types) {
    FreshLogFile(kReportTask);
    PrintMetric(Task(type), SampleRun());
    const std::vector<std::string> sections{Header(name), kPackets, kRtt, kOneWay, kLoss, kOrder};
    EXPECT_EQ(sections, TakeSyslogTexts());
    EXPECT_EQ(Lines(sections), ReadLogFile(kReportTask));
  }
}

TEST_F(PrintMetricTest, OfAnEchoRunIsShorterInTheFileThanInTheSystemLog) {
  const std::pair<SlaTestType, const char*> types[] = {{SlaTestType::kUdpEcho, "udp-echo (#1)"},
                                                       {SlaTestType::kIcmpEcho, "icmp-echo (#4)"}};
  for (const auto& [type, name] : types) {
    FreshLogFile(kReportTask);
    PrintMetric(Task(type), SampleRun());
    EXPECT_THAT(TakeSyslogTexts(),
                ElementsAre(Header(name), kPackets, kRtt, kOneWay, kLoss, kOrder));
    EXPECT_THAT(ReadLogFile(kReportTask), ElementsAreArray(Lines({Header(name), kPackets, kRtt})));
  }
}

TEST_F(PrintMetricTest, OfAFailedRunIsTheHeaderWithTheReason) {
  SlaTaskMetrics failed = SampleRun();
  failed.status = RunResult::kFail;
  failed.error_description = "timeout, no samples";
  PrintMetric(Task(SlaTestType::kUdpJitter), failed);
  const std::string header =
      "SLA task:\n\tID: #4308\tType: udp-jitter (#2)\t\n\tStatus: fail\tError: timeout, no "
      "samples\n"
      "\tStart time: 15.07.2024 12:00:00\tFinish time: 15.07.2024 12:01:03\n\tOperation time: ~63 "
      "seconds";
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre(header));
  EXPECT_THAT(ReadLogFile(kReportTask), ElementsAreArray(Lines({header})));
}

TEST_F(PrintMetricTest, NamesAnUnknownTypeByItsNumber) {
  SlaTaskMetrics run = SampleRun();
  run.status = RunResult::kFail;
  PrintMetric(Task(SlaTestType::kNone), run);
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre(HasSubstr("Type: undefined (#4294967295)")));
}

TEST_F(PrintMetricTest, PrintsWhatARunWithoutUsableRepliesLeaves) {
  SlaTaskMetrics run = SampleRun();
  run.latency_sd_min = kMax;
  run.latency_sd_avg = std::numeric_limits<double>::quiet_NaN();
  run.latency_sd_max = -kMax;
  PrintMetric(Task(SlaTestType::kUdpJitter), run);
  const std::string largest =
      "17976931348623157081452742373170435679807056752584499659891747680315726078002853876058955863"
      "27668781"
      "71540458953514382464234321326889464182768467546703537516986049910576551282076245490090389328"
      "94407586"
      "85084551339423045832369032229481658085593321233482747978262041447231687381771809192998812504"
      "04026184"
      "124858368.000000";
  const std::vector<std::string> texts = TakeSyslogTexts();
  ASSERT_EQ(6U, texts.size());
  EXPECT_THAT(texts[3], HasSubstr("Latency one way Min/Avg/Max: " + largest + "/nan/-" + largest +
                                  " milliseconds"));
}

TEST(OperationTimeText, GivesTheNearestWholeSecond) {
  EXPECT_EQ("~3 seconds", OperationTimeText(2.6));
  EXPECT_EQ("~2 seconds", OperationTimeText(2.4));
  EXPECT_EQ("~0 seconds", OperationTimeText(0));
  EXPECT_EQ("~-1 seconds", OperationTimeText(-1));
}

}  // namespace
}  // namespace ipsla::test
