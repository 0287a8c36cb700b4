#include <gtest/gtest.h>

#include "client/task_document.h"
#include "tools/ctl_tasks.h"

namespace ipsla::client {
namespace {

using test::FailedTask;
using test::JitterTask;
using test::kNow;

std::string ObjectOf(const TaskView& task) {
  return JsonLine(TaskObject(task, {.now = kNow}).get());
}

/// What ObjectOf writes from `key` to the next "}" behind it.
std::string Group(const TaskView& task, const std::string& key) {
  const std::string text = ObjectOf(task);
  const std::size_t begin = text.find('"' + key + '"');
  return begin == std::string::npos ? text : text.substr(begin, text.find('}', begin) + 1 - begin);
}

constexpr const char* kNoGroups =
    R"("jitter-values":{"sd-min":null,"sd-avg":null,"sd-sd":null,"sd-max":null,)"
    R"("ds-min":null,"ds-avg":null,"ds-sd":null,"ds-max":null},)"
    R"("loss-values":{"sd-loss":null,"ds-loss":null,"sd-loss-pct":null,"ds-loss-pct":null,)"
    R"("late-arrival":null,"skipped":null,"duplicate":null},)"
    R"("one-way-latency-values":{"sd-min":null,"sd-avg":null,"sd-max":null,)"
    R"("ds-min":null,"ds-avg":null,"ds-max":null},)"
    R"("out-of-sequence-values":{"sd-out-of-sequence":null,"ds-out-of-sequence":null},)";
constexpr const char* kNoRtt = R"("rtt-values":{"min":null,"avg":null,"max":null}})";

TEST(TaskDocument, HasEveryValueOfAJitterTask) {
  TaskView task = JitterTask();
  task.plan = TaskPlan{.period_s = 60};
  EXPECT_EQ(
      ObjectOf(task),
      R"({"sla-id":3,"schedule":true,"status":"successful","error-description":null,"reason":null,)"
      R"("start-time":1700000000,"finish-time":1700000002,"age-seconds":12,"period-seconds":60,)"
      R"("stale":false,"stale-reason":null,"successful-count":7,"failed-count":1,)"
      R"("vrf-instance":"blue","test-type":2,"type":"udp-jitter","src-address":"10.0.0.1",)"
      R"("dst-address":"10.0.0.2","iface-name":"eth0","transm-pkt-count":10,"sd-smp-count":9,)"
      R"("ds-smp-count":7,"sd-pkt-count":10,"ds-pkt-count":7,"loss-percent":30,)"
      R"("jitter-values":{"sd-min":null,"sd-avg":null,"sd-sd":0.04,"sd-max":null,)"
      R"("ds-min":null,"ds-avg":null,"ds-sd":0.05,"ds-max":null},)"
      R"("loss-values":{"sd-loss":1,"ds-loss":2,"sd-loss-pct":10,"ds-loss-pct":22.22,)"
      R"("late-arrival":6,"skipped":0,"duplicate":8},)"
      R"("one-way-latency-values":{"sd-min":0.4,"sd-avg":0.5,"sd-max":0.6,)"
      R"("ds-min":null,"ds-avg":0.7,"ds-max":0.8},)"
      R"("out-of-sequence-values":{"sd-out-of-sequence":4,"ds-out-of-sequence":5},)"
      R"("rtt-values":{"min":1,"avg":1.2,"max":1.5}})");
}

TEST(TaskDocument, HasNullsForAllThatAFailedRunDidNotMeasure) {
  EXPECT_EQ(
      ObjectOf(FailedTask()),
      std::string(R"({"sla-id":5,"schedule":true,"status":"fail",)"
                  R"("error-description":"timeout, no samples","reason":"timeout, no samples",)"
                  R"("start-time":1699999820,"finish-time":1699999829,"age-seconds":185,)"
                  R"("period-seconds":null,"stale":null,"stale-reason":null,)"
                  R"("successful-count":0,"failed-count":4,"vrf-instance":null,"test-type":1,)"
                  R"("type":"udp-echo","src-address":null,"dst-address":"10.0.0.9",)"
                  R"("iface-name":null,"transm-pkt-count":null,"sd-smp-count":null,)"
                  R"("ds-smp-count":null,"sd-pkt-count":null,"ds-pkt-count":null,)"
                  R"("loss-percent":null,)") +
          kNoGroups + kNoRtt);
}

TEST(TaskDocument, HasNullsForWhatAnEchoTypeDoesNotMeasure) {
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kUdpEcho;
  const std::string text = ObjectOf(task);
  EXPECT_NE(text.find(R"("loss-percent":30,)" + std::string(kNoGroups)), std::string::npos) << text;
  EXPECT_EQ(Group(task, "rtt-values"), R"("rtt-values":{"min":null,"avg":1.2,"max":1.5})")
      << "the minimum of an echo type is no measurement";
}

TEST(TaskDocument, HasNullsForARunWithoutUsableReplies) {
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kUdpJitterNtp;
  task.last->loss = LossValues{.sd_loss = -10, .ds_loss = 10, .skipped = 10, .duplicate = 1};
  const std::string text = ObjectOf(task);
  EXPECT_NE(
      text.find(R"("status":"successful","error-description":null,"reason":"no usable replies")"),
      std::string::npos)
      << text;
  EXPECT_NE(text.find(R"("ds-pkt-count":7,"loss-percent":null,)"), std::string::npos) << text;
  EXPECT_EQ(Group(task, "loss-values"),
            R"("loss-values":{"sd-loss":null,"ds-loss":null,"sd-loss-pct":null,"ds-loss-pct":null,)"
            R"("late-arrival":null,"skipped":10,"duplicate":1})");
  EXPECT_EQ(Group(task, "rtt-values") + "}", kNoRtt);
}

TEST(TaskDocument, TakesFromThePlanWhatATaskWithoutResultWillMeasure) {
  const TaskView task{.id = 9,
                      .plan = TaskPlan{.type = SlaTestType::kIcmpEcho,
                                       .dst_address = "10.0.0.7",
                                       .interface = "eth1",
                                       .period_s = 60}};
  EXPECT_EQ(
      ObjectOf(task),
      std::string(R"({"sla-id":9,"schedule":true,"status":"not run","error-description":null,)"
                  R"("reason":null,"start-time":null,"finish-time":null,"age-seconds":null,)"
                  R"("period-seconds":60,"stale":null,"stale-reason":null,)"
                  R"("successful-count":null,"failed-count":null,"vrf-instance":null,)"
                  R"("test-type":4,"type":"icmp-echo","src-address":null,)"
                  R"("dst-address":"10.0.0.7","iface-name":"eth1","transm-pkt-count":null,)"
                  R"("sd-smp-count":null,"ds-smp-count":null,"sd-pkt-count":null,)"
                  R"("ds-pkt-count":null,"loss-percent":null,)") +
          kNoGroups + kNoRtt);
}

TEST(TaskDocument, MarksAStaleResult) {
  const std::string text = JsonLine(TaskObject(JitterTask(), {.now = kNow, .max_age_s = 10}).get());
  EXPECT_NE(text.find(R"("stale":true,"stale-reason":"older than 10 s")"), std::string::npos)
      << text;
}

TEST(TaskDocument, HasTimeClockAndUnknownIds) {
  EXPECT_EQ(JsonLine(TasksDocument({}, {.now = kNow}).get()),
            R"({"time":1700000014,"clock":{"synchronised":null,"estimated-error-ms":null,)"
            R"("maximum-error-ms":null},"tasks":[]})");
  const DocumentContext context{
      .now = kNow,
      .clock = {.synchronised = true, .estimated_error_ms = 0.5, .maximum_error_ms = 20},
      .unknown_ids = {7, 8}};
  const std::string text = JsonLine(TasksDocument({FailedTask()}, context).get());
  EXPECT_EQ(text.find(R"({"time":1700000014,"clock":{"synchronised":true,"estimated-error-ms":0.5,)"
                      R"("maximum-error-ms":20},"tasks":[{"sla-id":5,)"),
            0U)
      << text;
  EXPECT_EQ(text.substr(text.size() - 19), R"(}],"unknown":[7,8]})") << text;
}

}  // namespace
}  // namespace ipsla::client
