#include <gtest/gtest.h>

#include "ctl/plugin.h"
#include "tools/ctl_tasks.h"

namespace ipsla::ctl {
namespace {

using test::FailedTask;
using test::JitterTask;
using test::kNow;

std::string LineFor(const TaskView& task, const Thresholds& warning = {},
                    const Thresholds& critical = {}) {
  return PluginLine(JudgeTask(task, warning, critical, kNow));
}

PluginState StateFor(const TaskView& task, const Thresholds& warning = {},
                     const Thresholds& critical = {}) {
  return JudgeTask(task, warning, critical, kNow).state;
}

TEST(Thresholds, ReadsLists) {
  std::string error;
  EXPECT_EQ(ReadThresholds("", &error), Thresholds{});
  EXPECT_EQ(ReadThresholds("rtt=50", &error), (Thresholds{{"rtt", 50}}));
  EXPECT_EQ(ReadThresholds("rtt=50,loss=0.5,age=0", &error),
            (Thresholds{{"rtt", 50}, {"loss", 0.5}, {"age", 0}}));
  EXPECT_EQ(ReadThresholds("latency=1,jitter=2", &error),
            (Thresholds{{"latency", 1}, {"jitter", 2}}));
  EXPECT_EQ(error, "");
}

TEST(Thresholds, RefusesWhatIsNoList) {
  for (const char* text : {"rtt",     "rtt=",          "=5",          "50",           "RTT=5",
                           "rtx=5",   "rtt=-1",        "rtt=-0",      "rtt=5ms",      "rtt=nan",
                           "rtt=inf", "rtt=1e3",       "rtt= 5",      "rtt=5,",       ",",
                           ",rtt=5",  "rtt=5,,loss=1", "rtt=5,rtt=6", "rtt=5 loss=1", "rtt=0x10"}) {
    std::string error;
    EXPECT_EQ(ReadThresholds(text, &error), std::nullopt) << text;
    EXPECT_NE(error, "") << text;
  }
}

TEST(Plugin, WritesAFineTaskWithItsValues) {
  EXPECT_EQ(LineFor(JitterTask(), {{"rtt", 50}, {"loss", 30}}, {{"rtt", 100}}),
            "OK - task 3 udp-jitter: rtt 1.2 ms, loss sd 10% ds 22.2% | rtt=1.2ms;50;100;; "
            "latency_sd=0.5ms;;;; "
            "latency_ds=0.7ms;;;; jitter_sd=0.04ms;;;; jitter_ds=0.05ms;;;; loss_sd=10%;30;;0;100 "
            "loss_ds=22.22%;30;;0;100 age=12s;;;;");
}

TEST(Plugin, WritesAnEchoTasksRoundTripLoss) {
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kIcmpEcho;
  EXPECT_EQ(
      LineFor(task),
      "OK - task 3 icmp-echo: rtt 1.2 ms, loss 30% | rtt=1.2ms;;;; loss=30%;;;0;100 age=12s;;;;");
  EXPECT_EQ(StateFor(task, {}, {{"loss", 29}}), PluginState::kCritical);
}

TEST(Plugin, JudgesEachThresholdByTheWorseDirection) {
  const struct {
    const char* name;
    double below, at;
  } cases[] = {{"rtt", 1.1, 1.2},
               {"latency", 0.6, 0.7},
               {"jitter", 0.04, 0.05},
               {"loss", 22, 22.22},
               {"age", 11, 12}};
  for (const auto& one : cases) {
    EXPECT_EQ(StateFor(JitterTask(), {{one.name, one.below}}), PluginState::kWarning) << one.name;
    EXPECT_EQ(StateFor(JitterTask(), {{one.name, one.at}}), PluginState::kOk) << one.name;
    EXPECT_EQ(StateFor(JitterTask(), {}, {{one.name, one.below}}), PluginState::kCritical)
        << one.name;
    EXPECT_EQ(StateFor(JitterTask(), {}, {{one.name, one.at}}), PluginState::kOk) << one.name;
  }
}

TEST(Plugin, NamesWhatIsExceeded) {
  EXPECT_EQ(
      LineFor(JitterTask(), {{"rtt", 1}, {"loss", 1}}, {{"loss", 20}}),
      "CRITICAL - task 3 udp-jitter: rtt 1.2 ms, loss sd 10% ds 22.2%, rtt 1.2 ms is above 1 ms, "
      "loss 22.22% is above 20% | rtt=1.2ms;1;;; latency_sd=0.5ms;;;; latency_ds=0.7ms;;;; "
      "jitter_sd=0.04ms;;;; "
      "jitter_ds=0.05ms;;;; loss_sd=10%;1;20;0;100 loss_ds=22.22%;1;20;0;100 age=12s;;;;");
}

TEST(Plugin, CallsAFailedRunCritical) {
  EXPECT_EQ(LineFor(FailedTask(), {{"rtt", 50}}),
            "CRITICAL - task 5 udp-echo: timeout, no samples | age=185s;;;;");
}

TEST(Plugin, KnowsNothingWithoutAResult) {
  EXPECT_EQ(LineFor({.id = 9}), "UNKNOWN - task 9 has no result yet");
  EXPECT_EQ(LineFor({.id = 9, .scheduled = false}), "UNKNOWN - task 9 is not scheduled");
}

TEST(Plugin, KnowsNothingOfAThresholdWithoutItsValue) {
  TaskView task = JitterTask();
  task.last->rtt.reset();
  EXPECT_EQ(StateFor(task, {{"rtt", 5}}), PluginState::kUnknown);
  EXPECT_EQ(StateFor(task, {{"rtt", 5}}, {{"loss", 5}}), PluginState::kCritical);
  EXPECT_EQ(StateFor(task, {{"loss", 50}}), PluginState::kOk);
  task.last->loss.reset();
  EXPECT_EQ(LineFor(task, {{"rtt", 5}}),
            "UNKNOWN - task 3 udp-jitter: loss 30%, no rtt value | latency_sd=0.5ms;;;; "
            "latency_ds=0.7ms;;;; "
            "jitter_sd=0.04ms;;;; jitter_ds=0.05ms;;;; loss=30%;;;0;100 age=12s;;;;");
}

TEST(Plugin, KnowsNothingWithoutAUsableReply) {
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kUdpJitterNtp;
  EXPECT_EQ(LineFor(task, {{"rtt", 5}}),
            "UNKNOWN - task 3 udp-jitter-ntp: no usable replies | age=12s;;;;");
  EXPECT_EQ(StateFor(task, {{"age", 10}}), PluginState::kWarning);
}

TEST(Plugin, KeepsTheLineInOnePiece) {
  TaskView task = FailedTask();
  task.last->error = "a|b\nc";
  EXPECT_EQ(LineFor(task), "CRITICAL - task 5 udp-echo: a/b\uFFFDc | age=185s;;;;");
}

TEST(Plugin, WritesJson) {
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kIcmpEcho;
  EXPECT_EQ(
      PluginJson(JudgeTask(task, {}, {}, kNow)),
      R"({"state":"OK","text":"task 3 icmp-echo: rtt 1.2 ms, loss 30%","values":{"rtt":1.2,"loss":30,"age":12}})");
}

TEST(Plugin, ExitsAsMonitoringPluginsDo) {
  EXPECT_EQ(static_cast<int>(PluginState::kOk), 0);
  EXPECT_EQ(static_cast<int>(PluginState::kWarning), 1);
  EXPECT_EQ(static_cast<int>(PluginState::kCritical), 2);
  EXPECT_EQ(static_cast<int>(PluginState::kUnknown), 3);
}

}  // namespace
}  // namespace ipsla::ctl
