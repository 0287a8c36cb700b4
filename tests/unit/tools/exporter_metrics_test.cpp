#include <limits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exporter/metrics_text.h"
#include "tools/exporter_results.h"

namespace ipsla::exporter {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

TEST(ExporterMetricWriter, WritesAFamilyOnceAndOnlyWithSamples) {
  MetricWriter out(MetricFormat::kPrometheus);
  out.Family("a_seconds", MetricType::kGauge, "seconds", "A.");
  out.Family("b_total", MetricType::kCounter, "", "B.");
  out.Sample({{"x", "1"}, {"y", "2"}}, 0.5);
  out.Sample({}, 3);
  out.Family("c", MetricType::kGauge, "", "C.");
  out.Sample({}, std::nullopt);
  out.Sample({}, std::numeric_limits<double>::quiet_NaN());
  out.Sample({}, std::numeric_limits<double>::infinity());
  EXPECT_EQ(out.Finish(),
            "# HELP b_total B.\n# TYPE b_total counter\nb_total{x=\"1\",y=\"2\"} 0.5\nb_total 3\n");
}

TEST(ExporterMetricWriter, WritesOpenMetrics) {
  MetricWriter out(MetricFormat::kOpenMetrics);
  out.Family("a_seconds", MetricType::kGauge, "seconds", "A.");
  out.Sample({}, 1e-7);
  out.Family("b_total", MetricType::kCounter, "", "B.");
  out.Sample({}, 4294967295.0);
  out.Family("c_info", MetricType::kInfo, "", "C.");
  out.Sample({{"x", ""}}, 1);
  EXPECT_EQ(out.Finish(),
            "# HELP a_seconds A.\n# TYPE a_seconds gauge\n# UNIT a_seconds seconds\n"
            "a_seconds 1e-07\n"
            "# HELP b B.\n# TYPE b counter\nb_total 4294967295\n"
            "# HELP c C.\n# TYPE c info\nc_info{x=\"\"} 1\n"
            "# EOF\n");
}

TEST(ExporterMetricWriter, EscapesLabels) {
  EXPECT_EQ(EscapedLabel("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
  EXPECT_EQ(EscapedLabel("t\x01\xff\xc3\xa4"), "t????");
}

Snapshot TwoTasks() {
  Snapshot snapshot;
  snapshot.up = true;
  snapshot.tasks[3] = test::Result(3, SlaTestType::kUdpJitter);
  snapshot.tasks[3].vrf = "blue";
  snapshot.tasks[5] = test::FailedResult(5, SlaTestType::kIcmpEcho, "timeout, no samples");
  snapshot.plans[3].dscp = 46;
  snapshot.plans[3].period_s = 60;
  snapshot.clock = {true, 0.5, 2.0};
  snapshot.duration = std::chrono::milliseconds(20);
  return snapshot;
}

TEST(ExporterMetricsText, HasEveryValueOfATask) {
  const std::string text = MetricsText(TwoTasks(), {}, MetricFormat::kPrometheus);
  for (const char* line :
       {"ipsla_up 1",
        "ipsla_task_info{task=\"3\",type=\"udp-jitter\",vrf=\"blue\",source=\"10.0.0.1\","
        "destination=\"10.0.0.2\",dscp=\"46\"} 1",
        "ipsla_task_period_seconds{task=\"3\"} 60",
        "ipsla_last_run_success{task=\"3\"} 1",
        "ipsla_last_run_timestamp_seconds{task=\"3\"} 1700000002",
        "ipsla_runs_total{task=\"3\",result=\"successful\"} 7",
        "ipsla_runs_total{task=\"3\",result=\"failed\"} 1",
        "ipsla_rtt_min_seconds{task=\"3\"} 0.001",
        "ipsla_rtt_mean_seconds{task=\"3\"} 0.002",
        "ipsla_rtt_max_seconds{task=\"3\"} 0.003",
        "ipsla_one_way_delay_min_seconds{task=\"3\",direction=\"sd\"} 0.00025",
        "ipsla_one_way_delay_mean_seconds{task=\"3\",direction=\"sd\"} 0.0005",
        "ipsla_one_way_delay_max_seconds{task=\"3\",direction=\"ds\"} 0.00175",
        "ipsla_jitter_stddev_seconds{task=\"3\",direction=\"ds\"} 0.000375",
        "ipsla_packet_loss_ratio{task=\"3\",direction=\"round_trip\"} 0.2",
        "ipsla_packet_loss_ratio{task=\"3\",direction=\"sd\"} 0.1",
        "ipsla_packets{task=\"3\",outcome=\"sent\"} 10",
        "ipsla_packets{task=\"3\",outcome=\"received\"} 8",
        "ipsla_packets{task=\"3\",outcome=\"late\"} 3",
        "ipsla_packets{task=\"3\",outcome=\"skipped\"} 0",
        "ipsla_packets{task=\"3\",outcome=\"duplicate\"} 5",
        "ipsla_clock_synchronized 1",
        "ipsla_clock_error_seconds 0.0005",
        "ipsla_scrape_duration_seconds 0.02"}) {
    EXPECT_THAT(text, HasSubstr("\n" + std::string(line) + "\n"));
  }
}

TEST(ExporterMetricsText, HasNoValueOfAFailedRun) {
  std::string text = MetricsText(TwoTasks(), {}, MetricFormat::kPrometheus);
  EXPECT_THAT(text, HasSubstr("ipsla_last_run_success{task=\"5\"} 0\n"));
  EXPECT_THAT(text, HasSubstr("ipsla_runs_total{task=\"5\",result=\"failed\"} 1\n"));
  for (const char* name : {"ipsla_rtt_", "ipsla_one_way", "ipsla_jitter", "ipsla_packet"}) {
    for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
      EXPECT_NE(text.substr(text.find('{', at), 9), "{task=\"5\"") << text.substr(at, 60);
    }
  }
}

TEST(ExporterMetricsText, SaysThatTheDaemonIsDown) {
  Snapshot snapshot;
  snapshot.error = "no daemon answers";
  const std::string text = MetricsText(snapshot, {}, MetricFormat::kOpenMetrics);
  EXPECT_THAT(text, HasSubstr("\nipsla_up 0\n"));
  EXPECT_THAT(text, HasSubstr("# TYPE ipsla_build info\n"));
  EXPECT_THAT(text, Not(HasSubstr("ipsla_task")));
  EXPECT_THAT(text, Not(HasSubstr("ipsla_clock")));
  EXPECT_TRUE(text.ends_with("\n# EOF\n"));
}

TEST(ExporterProcessInfo, IsThisProcess) {
  const ProcessInfo info = ReadProcessInfo();
  ASSERT_TRUE(info.resident_bytes && info.virtual_bytes && info.cpu_seconds && info.open_fds);
  EXPECT_GT(*info.resident_bytes, 1e6);
  EXPECT_GE(*info.virtual_bytes, *info.resident_bytes);
  EXPECT_GE(*info.open_fds, 3);
  EXPECT_LE(*info.open_fds, *info.max_fds);
  ASSERT_TRUE(info.start_time);
  EXPECT_GT(*info.start_time, 1.7e9);
}

}  // namespace
}  // namespace ipsla::exporter
