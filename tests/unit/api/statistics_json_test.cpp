#include "api/statistics_json.h"

#include <arpa/inet.h>

#include <cmath>
#include <limits>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

namespace ipsla {
namespace {

SlaTaskConfig Task(std::uint16_t id) {
  SlaTaskConfig task;
  task.sla_id = id;
  task.schedule = true;
  task.sla_type = SlaTestType::kUdpJitter;
  task.measurement.if_name = "eth0";
  task.measurement.vrf = "blue";
  task.measurement.src.sin_addr.s_addr = inet_addr("192.0.2.1");
  task.measurement.dst.sin_addr.s_addr = inet_addr("198.51.100.254");
  task.control_phase.vrf = "blue";
  task.control_phase.dst.sin_addr.s_addr = inet_addr("203.0.113.9");
  task.num_packets = 10;
  return task;
}

/// Metrics in which every value is different, so that a value under a wrong key is seen.
SlaTaskStatistics Statistics() {
  SlaTaskStatistics statistics;
  SlaTaskMetrics& last = statistics.last;
  last.start_time = 1700000000;
  last.finish_time = 1700000002;
  last.sd_smp_count = 11;
  last.ds_smp_count = 12;
  last.rtt_smp_count = 99;
  last.sd_pkt_count = 13;
  last.ds_pkt_count = 14;
  last.sd_loss = 21;
  last.ds_loss = 22;
  last.sd_out_of_sequence = 31;
  last.ds_out_of_sequence = 32;
  last.late_arrival = 23;
  last.skipped = 24;
  last.duplicate = 25;
  last.sd_loss_pct = 26.5;
  last.ds_loss_pct = 27.25;
  last.jitter_sd_min = 41;
  last.jitter_sd_avg = 42;
  last.jitter_sd_sd = 43;
  last.jitter_sd_max = 44;
  last.jitter_ds_min = 45;
  last.jitter_ds_avg = 46;
  last.jitter_ds_sd = 47;
  last.jitter_ds_max = 48;
  last.latency_sd_min = 51;
  last.latency_sd_avg = 52;
  last.latency_sd_max = 53;
  last.latency_ds_min = 54;
  last.latency_ds_avg = 55;
  last.latency_ds_max = 56;
  last.rtt_min = 61;
  last.rtt_avg = 62.125;
  last.rtt_max = 63;
  statistics.successful_count = 7;
  statistics.failed_count = 4294967295U;
  return statistics;
}

std::string Serialize(const StatisticsRequest& request, const SlaTaskMap& tasks,
                      StatisticsStore& statistics) {
  const JsonDocument reply(cJSON_CreateObject());
  EXPECT_EQ(SerializeTasksMetrics(reply.get(), request, tasks, statistics), 0);
  EXPECT_TRUE(statistics.mutex.try_lock()) << "the statistics stayed locked";
  statistics.mutex.unlock();
  const JsonText text(cJSON_PrintUnformatted(reply.get()));
  return text.get();
}

/// The document of task 1 with these metrics, only the group asked for.
std::string SerializeGroup(const SlaTaskMetrics& metrics, const std::string& group) {
  StatisticsStore store;
  store.tasks[1].last = metrics;
  const std::string text = Serialize({{1, {group}}}, {}, store);
  const std::size_t start = text.find(",\"" + group + "\":");
  EXPECT_NE(start, std::string::npos) << text;
  return start == std::string::npos ? text : text.substr(start + 1);
}

TEST(StatisticsJson, WritesAnEmptyArrayForAnEmptyRequest) {
  StatisticsStore store;
  store.tasks[1] = Statistics();
  EXPECT_EQ(Serialize({}, {{1, Task(1)}}, store), R"({"tasks":[]})");
}

TEST(StatisticsJson, WritesEveryKeyInItsOrder) {
  StatisticsStore store;
  store.tasks[3] = Statistics();
  EXPECT_EQ(
      Serialize({{3, MetricGroupNames()}}, {{3, Task(3)}}, store),
      R"({"tasks":[{"sla-id":3,"status":"successful","error-description":"","start-time":1700000000,)"
      R"("finish-time":1700000002,"successful-count":7,"failed-count":4294967295,"vrf-instance":"blue",)"
      R"("transm-pkt-count":10,"test-type":2,"src-address":"192.0.2.1","dst-address":"198.51.100.254",)"
      R"("iface-name":"eth0","sd-smp-count":11,"ds-smp-count":12,"sd-pkt-count":13,"ds-pkt-count":14,)"
      R"("jitter-values":{"sd-min":41,"sd-avg":42,"sd-sd":43,"sd-max":44,)"
      R"("ds-min":45,"ds-avg":46,"ds-sd":47,"ds-max":48},)"
      R"("loss-values":{"sd-loss":21,"ds-loss":22,"sd-loss-pct":26.5,"ds-loss-pct":27.25,)"
      R"("late-arrival":23,"skipped":24,"duplicate":25},)"
      R"("one-way-latency-values":{"sd-min":51,"sd-avg":52,"sd-max":53,"ds-min":54,"ds-avg":55,"ds-max":56},)"
      R"("out-of-sequence-values":{"sd-out-of-sequence":31,"ds-out-of-sequence":32},)"
      R"("rtt-values":{"min":61,"avg":62.125,"max":63}}]})");
}

TEST(StatisticsJson, WritesOnlyTheFixedKeysWithoutGroups) {
  StatisticsStore store;
  store.tasks[3] = Statistics();
  const std::string fixed =
      R"({"tasks":[{"sla-id":3,"status":"successful","error-description":"","start-time":1700000000,)"
      R"("finish-time":1700000002,"successful-count":7,"failed-count":4294967295,"vrf-instance":"blue",)"
      R"("transm-pkt-count":10,"test-type":2,"src-address":"192.0.2.1","dst-address":"198.51.100.254",)"
      R"("iface-name":"eth0","sd-smp-count":11,"ds-smp-count":12,"sd-pkt-count":13,"ds-pkt-count":14}]})";
  EXPECT_EQ(Serialize({{3, {}}}, {{3, Task(3)}}, store), fixed);
  EXPECT_EQ(Serialize({{3, {"no-such-values"}}}, {{3, Task(3)}}, store), fixed);
}

TEST(StatisticsJson, WritesTheRequestedGroupsInAlphabeticalOrderOnce) {
  StatisticsStore store;
  store.tasks[3] = Statistics();
  const JsonDocument metrics(cJSON_Parse(R"(["rtt-values","loss-values","rtt-values","unknown"])"));
  const auto groups = ReadMetricGroups(metrics.get());
  ASSERT_TRUE(groups.has_value());
  const std::string text = Serialize({{3, *groups}}, {}, store);
  EXPECT_EQ(
      text.substr(text.find(",\"loss-values\"")),
      R"(,"loss-values":{"sd-loss":21,"ds-loss":22,"sd-loss-pct":26.5,"ds-loss-pct":27.25,)"
      R"("late-arrival":23,"skipped":24,"duplicate":25},"rtt-values":{"min":61,"avg":62.125,"max":63}}]})");
}

TEST(StatisticsJson, WritesTasksInAscendingIdAndNoObjectWithoutStatistics) {
  StatisticsStore store;
  store.tasks[2] = {};
  store.tasks[10] = {};
  store.tasks[7] = {};
  const std::string text =
      Serialize({{10, {}}, {2, {}}, {5, {}}}, {{2, Task(2)}, {5, Task(5)}, {10, Task(10)}}, store);
  const std::size_t second = text.find("\"sla-id\":2,");
  const std::size_t tenth = text.find("\"sla-id\":10,");
  EXPECT_NE(second, std::string::npos);
  EXPECT_LT(second, tenth);
  EXPECT_NE(tenth, std::string::npos);
  EXPECT_EQ(text.find("\"sla-id\":5,"), std::string::npos) << "a configured task that has not run";
  EXPECT_EQ(text.find("\"sla-id\":7,"), std::string::npos) << "a task that was not asked for";
}

TEST(StatisticsJson, ForgetsATaskWhoseStatisticsWereErased) {
  StatisticsStore store;
  store.tasks[3] = Statistics();
  store.tasks.erase(3);
  EXPECT_EQ(Serialize({{3, MetricGroupNames()}}, {}, store), R"({"tasks":[]})");
}

TEST(StatisticsJson, ReportsNoTransmittedPacketsForAFailedRun) {
  StatisticsStore store;
  store.tasks[3] = Statistics();
  store.tasks[3].last.status = RunResult::kFail;
  store.tasks[3].last.error_description = "control phase failed: \"timeout\"";
  const std::string text = Serialize({{3, {"rtt-values"}}}, {{3, Task(3)}}, store);
  EXPECT_EQ(
      text,
      R"({"tasks":[{"sla-id":3,"status":"fail","error-description":"control phase failed: \"timeout\"",)"
      R"("start-time":1700000000,"finish-time":1700000002,"successful-count":7,"failed-count":4294967295,)"
      R"("vrf-instance":"blue","transm-pkt-count":0,"test-type":2,"src-address":"192.0.2.1",)"
      R"("dst-address":"198.51.100.254","iface-name":"eth0","sd-smp-count":11,"ds-smp-count":12,)"
      R"("sd-pkt-count":13,"ds-pkt-count":14,"rtt-values":{"min":61,"avg":62.125,"max":63}}]})");
}

TEST(StatisticsJson, NamesAnUnknownStatusUndefined) {
  StatisticsStore store;
  store.tasks[3].last.status = static_cast<RunResult>(2);
  const std::string text = Serialize({{3, {}}}, {{3, Task(3)}}, store);
  EXPECT_NE(text.find(R"("status":"undefined")"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("transm-pkt-count":0)"), std::string::npos) << text;
}

TEST(StatisticsJson, LeavesOutAnEmptyVrfButNotAnEmptyInterface) {
  StatisticsStore store;
  store.tasks[3] = {};
  SlaTaskConfig task = Task(3);
  task.measurement.vrf.clear();
  task.control_phase.vrf.clear();
  task.measurement.if_name.clear();
  EXPECT_EQ(
      Serialize({{3, {}}}, {{3, task}}, store),
      R"({"tasks":[{"sla-id":3,"status":"successful","error-description":"","start-time":0,"finish-time":0,)"
      R"("successful-count":0,"failed-count":0,"transm-pkt-count":10,"test-type":2,"src-address":"192.0.2.1",)"
      R"("dst-address":"198.51.100.254","iface-name":"","sd-smp-count":0,"ds-smp-count":0,"sd-pkt-count":0,)"
      R"("ds-pkt-count":0}]})");
}

TEST(StatisticsJson, FindsStatisticsByTheLow16BitsOfTheIdAndTheTaskByTheWhole) {
  StatisticsStore store;
  store.tasks[1] = Statistics();
  store.tasks[65535].successful_count = 5;
  const SlaTaskMap tasks{{1, Task(1)}, {65535, Task(65535)}};
  EXPECT_EQ(
      Serialize({{65537, {}}}, tasks, store),
      R"({"tasks":[{"sla-id":65537,"status":"successful","error-description":"","start-time":1700000000,)"
      R"("finish-time":1700000002,"successful-count":7,"failed-count":4294967295,"transm-pkt-count":0,)"
      R"("sd-smp-count":11,"ds-smp-count":12,"sd-pkt-count":13,"ds-pkt-count":14}]})");
  EXPECT_EQ(
      Serialize({{-1, {}}}, tasks, store),
      R"({"tasks":[{"sla-id":-1,"status":"successful","error-description":"","start-time":0,"finish-time":0,)"
      R"("successful-count":5,"failed-count":0,"transm-pkt-count":0,"sd-smp-count":0,"ds-smp-count":0,)"
      R"("sd-pkt-count":0,"ds-pkt-count":0}]})");
}

TEST(StatisticsJson, WritesNumbersAsTheLibraryDoes) {
  SlaTaskMetrics metrics;
  const struct {
    double value;
    const char* text;
  } cases[] = {
      {0.1, "0.1"},
      {1.0 / 3, "0.33333333333333331"},
      {-2.5, "-2.5"},
      {3.0, "3"},
      {1e15, "1e+15"},
      {1e300, "1e+300"},
      {5e-324, "4.94065645841247e-324"},
      {std::nan(""), "null"},
      {std::numeric_limits<double>::infinity(), "null"},
      {-std::numeric_limits<double>::infinity(), "null"},
      {std::numeric_limits<double>::max(), "1.79769313486232e+308"},
      {-std::numeric_limits<double>::max(), "-1.79769313486232e+308"},
  };
  for (const auto& one : cases) {
    metrics.rtt_min = one.value;
    EXPECT_EQ(SerializeGroup(metrics, "rtt-values"),
              std::string(R"("rtt-values":{"min":)") + one.text + R"(,"avg":0,"max":0}}]})");
  }
}

}  // namespace
}  // namespace ipsla
