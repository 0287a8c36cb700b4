#include <cmath>
#include <limits>

#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/statistics_json.h"
#include "client/task_results.h"

namespace ipsla::client {
namespace {

using testing::ElementsAre;
using testing::Pair;

TaskStatistics ReadOne(const std::string& json) {
  StatisticsMap tasks;
  EXPECT_TRUE(ReadStatistics(json, &tasks)) << json;
  EXPECT_EQ(tasks.size(), 1U) << json;
  return tasks.empty() ? TaskStatistics{} : tasks.begin()->second;
}

constexpr const char* kFull =
    R"({"tasks":[{"sla-id":3,"status":"successful","error-description":"","start-time":1700000000,)"
    R"("finish-time":1700000002,"successful-count":7,"failed-count":4294967295,"vrf-instance":"blue",)"
    R"("transm-pkt-count":10,"test-type":2,"src-address":"192.0.2.1","dst-address":"198.51.100.254",)"
    R"("iface-name":"eth0","sd-smp-count":11,"ds-smp-count":12,"sd-pkt-count":13,"ds-pkt-count":14,)"
    R"("jitter-values":{"sd-min":41,"sd-avg":42,"sd-sd":43,"sd-max":44,"ds-min":45,"ds-avg":46,"ds-sd":47,"ds-max":48},)"
    R"("loss-values":{"sd-loss":21,"ds-loss":22,"sd-loss-pct":26.5,"ds-loss-pct":27.25,)"
    R"("late-arrival":23,"skipped":24,"duplicate":25},)"
    R"("one-way-latency-values":{"sd-min":51,"sd-avg":52,"sd-max":53,"ds-min":54,"ds-avg":55,"ds-max":56},)"
    R"("out-of-sequence-values":{"sd-out-of-sequence":31,"ds-out-of-sequence":32},)"
    R"("rtt-values":{"min":61,"avg":62.125,"max":63}}]})";

TEST(TaskResults, ReadsEveryKey) {
  const TaskStatistics task = ReadOne(kFull);
  EXPECT_EQ(task.id, 3);
  EXPECT_EQ(task.status, "successful");
  EXPECT_FALSE(task.Failed());
  EXPECT_EQ(task.error, "");
  EXPECT_EQ(task.start_time, 1700000000);
  EXPECT_EQ(task.finish_time, 1700000002);
  EXPECT_EQ(task.successful_count, 7);
  EXPECT_EQ(task.failed_count, 4294967295);
  EXPECT_EQ(task.vrf, "blue");
  EXPECT_EQ(task.transmitted, 10);
  EXPECT_EQ(task.type, SlaTestType::kUdpJitter);
  EXPECT_EQ(task.src_address, "192.0.2.1");
  EXPECT_EQ(task.dst_address, "198.51.100.254");
  EXPECT_EQ(task.interface, "eth0");
  EXPECT_THAT((std::vector{task.sd_samples, task.ds_samples, task.sd_packets, task.ds_packets}),
              ElementsAre(11, 12, 13, 14));
}

TEST(TaskResults, ReadsEveryGroup) {
  const TaskStatistics task = ReadOne(kFull);
  ASSERT_TRUE(task.jitter && task.loss && task.latency && task.out_of_sequence && task.rtt);
  EXPECT_THAT((std::vector{task.jitter->sd.min, task.jitter->sd.avg, task.jitter->sd.deviation,
                           task.jitter->sd.max}),
              ElementsAre(41, 42, 43, 44));
  EXPECT_THAT((std::vector{task.jitter->ds.min, task.jitter->ds.avg, task.jitter->ds.deviation,
                           task.jitter->ds.max}),
              ElementsAre(45, 46, 47, 48));
  EXPECT_THAT((std::vector{task.loss->sd_loss, task.loss->ds_loss, task.loss->late_arrival,
                           task.loss->skipped, task.loss->duplicate}),
              ElementsAre(21, 22, 23, 24, 25));
  EXPECT_THAT((std::vector{task.loss->sd_percent, task.loss->ds_percent}),
              ElementsAre(26.5, 27.25));
  EXPECT_THAT((std::vector{task.latency->sd.min, task.latency->sd.avg, task.latency->sd.max}),
              ElementsAre(51, 52, 53));
  EXPECT_THAT((std::vector{task.latency->ds.min, task.latency->ds.avg, task.latency->ds.max}),
              ElementsAre(54, 55, 56));
  EXPECT_EQ(task.latency->sd.deviation, std::nullopt);
  EXPECT_EQ(task.out_of_sequence->sd, 31);
  EXPECT_EQ(task.out_of_sequence->ds, 32);
  EXPECT_THAT((std::vector{task.rtt->min, task.rtt->avg, task.rtt->max}),
              ElementsAre(61, 62.125, 63));
}

TEST(TaskResults, KeepsTheObjectsText) {
  const std::string json(kFull);
  EXPECT_EQ(ReadOne(json).json, json.substr(10, json.size() - 12));
}

TEST(TaskResults, LeavesOutGroupsThatWereNotAskedFor) {
  const TaskStatistics task =
      ReadOne(R"({"tasks":[{"sla-id":3,"status":"fail","rtt-values":{"min":1}}]})");
  EXPECT_TRUE(task.Failed());
  EXPECT_FALSE(task.jitter || task.loss || task.latency || task.out_of_sequence);
  ASSERT_TRUE(task.rtt);
  EXPECT_EQ(task.rtt->min, 1);
  EXPECT_EQ(task.rtt->avg, std::nullopt);
  EXPECT_EQ(task.type, SlaTestType::kNone);
}

// What the daemon writes for a run without usable samples: its own text, read back.
TEST(TaskResults, TakesNonFiniteAndPresetValuesAsNone) {
  StatisticsStore store;
  SlaTaskMetrics& last = store.tasks[1].last;
  last.rtt_min = std::numeric_limits<double>::max();
  last.rtt_max = -std::numeric_limits<double>::max();
  last.rtt_avg = std::nan("");
  last.latency_sd_avg = std::numeric_limits<double>::infinity();
  last.latency_ds_avg = 1e15;
  const JsonDocument reply(cJSON_CreateObject());
  ASSERT_EQ(SerializeTasksMetrics(reply.get(), {{1, MetricGroupNames()}}, {}, store), 0);
  const TaskStatistics task = ReadOne(JsonText(cJSON_PrintUnformatted(reply.get())).get());
  ASSERT_TRUE(task.rtt && task.latency);
  EXPECT_EQ(task.rtt->min, std::nullopt);
  EXPECT_EQ(task.rtt->avg, std::nullopt);
  EXPECT_EQ(task.rtt->max, std::nullopt);
  EXPECT_EQ(task.latency->sd.avg, std::nullopt);
  EXPECT_EQ(task.latency->ds.avg, 1e15);
  EXPECT_EQ(task.latency->sd.min, 0);
}

TEST(TaskResults, ReadsStatuses) {
  StatusMap tasks;
  EXPECT_TRUE(ReadStatuses(R"({"tasks":[{"sla-id":7,"status":true},{"sla-id":3,"status":false}]})",
                           &tasks));
  EXPECT_THAT(tasks, ElementsAre(Pair(3, false), Pair(7, true)));
}

TEST(TaskResults, AddsOneRepliesTasksToAnothers) {
  StatusMap tasks;
  EXPECT_TRUE(ReadStatuses(R"({"tasks":[{"sla-id":7,"status":true}]})", &tasks));
  EXPECT_TRUE(ReadStatuses(R"({"tasks":[{"sla-id":3,"status":true}]})", &tasks));
  EXPECT_EQ(tasks.size(), 2U);
}

TEST(TaskResults, RefusesWhatIsNoSuchDocument) {
  for (const char* json : {"", "nonsense", "[]", "5", "{}", R"({"tasks":5})", R"({"tasks":[5]})",
                           R"({"tasks":[{}]})", R"({"tasks":[{"sla-id":"3"}]})",
                           R"({"tasks":[{"sla-id":1e99}]})", R"({"tasks":[{"sla-id":null}]})"}) {
    StatisticsMap statistics;
    EXPECT_FALSE(ReadStatistics(json, &statistics)) << json;
    StatusMap statuses;
    EXPECT_FALSE(ReadStatuses(json, &statuses)) << json;
  }
}

TEST(TaskResults, ReadsValuesOfWrongTypesAsNone) {
  const TaskStatistics task = ReadOne(
      R"({"tasks":[{"sla-id":3,"status":5,"start-time":"x","test-type":9,"failed-count":1e300,"rtt-values":[],)"
      R"("loss-values":{"sd-loss":"many","sd-loss-pct":"all"}}]})");
  EXPECT_EQ(task.status, "");
  EXPECT_TRUE(task.Failed());
  EXPECT_EQ(task.start_time, 0);
  EXPECT_EQ(task.type, SlaTestType::kNone);
  EXPECT_EQ(task.failed_count, 0);
  EXPECT_FALSE(task.rtt);
  ASSERT_TRUE(task.loss);
  EXPECT_EQ(task.loss->sd_loss, 0);
  EXPECT_EQ(task.loss->sd_percent, std::nullopt);
}

}  // namespace
}  // namespace ipsla::client
