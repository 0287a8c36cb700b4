#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/task_view.h"
#include "ctl/watch_changes.h"
#include "support/local_time_zone.h"
#include "tools/ctl_tasks.h"

namespace ipsla::ctl {
namespace {

using test::FailedTask;
using test::JitterTask;
using test::kNow;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> Texts(const std::vector<TableCell>& row) {
  std::vector<std::string> texts;
  for (const TableCell& cell : row) {
    texts.push_back(cell.text);
  }
  return texts;
}

std::vector<std::string> RowOf(const TaskView& task) {
  return Texts(TaskTable({task}, kNow).rows.front());
}

TEST(TaskTable, ShowsAJitterTask) {
  EXPECT_THAT(RowOf(JitterTask()),
              ElementsAre("3", "udp-jitter", "blue", "10.0.0.2", "ok", "12s", "1.200", "0.500",
                          "0.700", "0.040", "0.050", "30", "10", "22.2", "7", "1", "-"));
}

TEST(TaskTable, ShowsNoOneWayValuesOfAnEchoTask) {
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kIcmpEcho;
  EXPECT_THAT(RowOf(task), ElementsAre("3", "icmp-echo", "blue", "10.0.0.2", "ok", "12s", "1.200",
                                       "-", "-", "-", "-", "30", "-", "-", "7", "1", "-"));
}

TEST(TaskTable, ShowsNoValuesOfAFailedRunButItsReason) {
  EXPECT_THAT(RowOf(FailedTask()),
              ElementsAre("5", "udp-echo", "-", "10.0.0.9", "FAIL", "3m05s", "-", "-", "-", "-",
                          "-", "-", "-", "-", "0", "4", "timeout, no samples"));
  const auto row = TaskTable({FailedTask()}, kNow).rows.front();
  EXPECT_EQ(row[4].style, CellStyle::kBad);
  EXPECT_EQ(row.back().style, CellStyle::kBad);
}

TEST(TaskTable, ShowsATaskWithoutAResult) {
  EXPECT_THAT(RowOf({.id = 9}), ElementsAre("9", "-", "-", "-", "not run", "-", "-", "-", "-", "-",
                                            "-", "-", "-", "-", "-", "-", "-"));
  EXPECT_EQ(RowOf({.id = 9, .scheduled = false})[4], "off");
}

TEST(TaskTable, ShowsNoValueThatWasNotMeasured) {
  TaskView task = JitterTask();
  task.last->rtt->avg = std::nullopt;
  task.last->latency.reset();
  task.last->jitter.reset();
  task.last->loss.reset();
  task.last->sd_packets = 0;
  EXPECT_THAT(RowOf(task), ElementsAre("3", "udp-jitter", "blue", "10.0.0.2", "ok", "12s", "-", "-",
                                       "-", "-", "-", "-", "-", "-", "7", "1", "-"));
}

TEST(TaskTable, PrintsNamesThatATerminalWouldObeyHarmlessly) {
  TaskView task = JitterTask();
  task.last->vrf = "a\x1b[31m";
  EXPECT_EQ(RowOf(task)[2], "a\uFFFD[31m");
}

TEST(TaskDetails, ShowsEveryValueOfAJitterTask) {
  const test::LocalTimeZone zone("UTC0");
  EXPECT_THAT(
      TaskDetails(JitterTask(), kNow, false),
      ElementsAre(
          "task 3 udp-jitter 10.0.0.1 -> 10.0.0.2, VRF blue, interface eth0: ok",
          "  run of 2023-11-14 22:13:20 to 2023-11-14 22:13:22, 12s ago; 7 ok, 1 failed",
          "  ms                       min       avg       max deviation",
          "  round trip             1.000     1.200     1.500         -",
          "  one-way SD             0.400     0.500     0.600         -",
          "  one-way DS                 -     0.700     0.800         -",
          "  jitter SD              0.010     0.020     0.030     0.040",
          "  jitter DS              0.010     0.020     0.030     0.050",
          "  probes                    SD        DS", "  packets                   10         7",
          "  samples                    9         7", "  lost                       1         2",
          "  lost %                    10      22.2", "  out of sequence            4         5",
          "  late 6, skipped 0, duplicate 8"));
}

TEST(TaskDetails, ShowsWhatAnEchoTaskMeasures) {
  const test::LocalTimeZone zone("UTC0");
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kUdpEcho;
  task.last->vrf.clear();
  task.last->interface.clear();
  EXPECT_THAT(
      TaskDetails(task, kNow, false),
      ElementsAre("task 3 udp-echo 10.0.0.1 -> 10.0.0.2: ok",
                  "  run of 2023-11-14 22:13:20 to 2023-11-14 22:13:22, 12s ago; 7 ok, 1 failed",
                  "  ms                       min       avg       max deviation",
                  "  round trip             1.000     1.200     1.500         -",
                  "  probes                    SD        DS",
                  "  packets                   10         7",
                  "  samples                    9         7"));
}

TEST(TaskDetails, ShowsTheReasonOfAFailedRun) {
  const test::LocalTimeZone zone("UTC0");
  EXPECT_THAT(
      TaskDetails(FailedTask(), kNow, true),
      ElementsAre("task 5 udp-echo - -> 10.0.0.9: \x1b[1;31mFAIL\x1b[0m",
                  "  run of 2023-11-14 22:10:20 to 2023-11-14 22:10:29, 3m05s ago; 0 ok, 4 failed",
                  "  \x1b[1;31mtimeout, no samples\x1b[0m"));
  EXPECT_THAT(TaskDetails({.id = 9}, kNow, false), ElementsAre("task 9: not run"));
}

TEST(WatchChanges, MarksWhatChangedButNotTheAge) {
  TaskView later = JitterTask();
  later.last->rtt->avg = 2.5;
  later.last->finish_time += 2;
  const TextTable before = TaskTable({JitterTask()}, kNow);
  TextTable after = TaskTable({later, FailedTask()}, kNow);
  MarkChanges(before, &after);
  std::vector<std::string> marked;
  for (const TableCell& cell : after.rows[0]) {
    if (cell.style == CellStyle::kChanged) {
      marked.push_back(cell.text);
    }
  }
  EXPECT_THAT(marked, ElementsAre("2.500"));
  EXPECT_EQ(after.rows[1][0].style, CellStyle::kChanged) << "a task that is new";
  EXPECT_EQ(after.rows[1][1].style, CellStyle::kPlain);
}

TEST(WatchChanges, WritesALineForEachTaskAtFirst) {
  const test::LocalTimeZone zone("UTC0");
  EXPECT_THAT(
      ChangeLines({}, {JitterTask(), FailedTask(), {.id = 9}}, kNow),
      ElementsAre(
          "2023-11-14 22:13:34 task 3 udp-jitter vrf=blue dst=10.0.0.2 result=ok rtt=1.200ms "
          "sd=0.500ms ds=0.700ms jitter-sd=0.040ms jitter-ds=0.050ms loss=30% loss-sd=10% "
          "loss-ds=22.2% ok=7 failed=1",
          "2023-11-14 22:13:34 task 5 udp-echo dst=10.0.0.9 result=FAIL ok=0 failed=4 "
          "error=\"timeout, no samples\"",
          "2023-11-14 22:13:34 task 9 result=not run"));
}

TEST(WatchChanges, WritesALineForNewResultsOnly) {
  const test::LocalTimeZone zone("UTC0");
  EXPECT_THAT(ChangeLines({JitterTask()}, {JitterTask()}, kNow + 5), IsEmpty());
  TaskView failed = JitterTask();
  failed.last->status = "fail";
  failed.last->error = "timeout, no samples";
  ++failed.last->failed_count;
  EXPECT_THAT(
      ChangeLines({JitterTask(), FailedTask()}, {failed}, kNow),
      ElementsAre(
          "2023-11-14 22:13:34 task 3 udp-jitter vrf=blue dst=10.0.0.2 result=FAIL* ok=7 failed=2 "
          "error=\"timeout, no samples\"",
          "2023-11-14 22:13:34 task 5 result=gone"));
}

TEST(WatchChanges, WritesALineForATasksFirstResult) {
  EXPECT_EQ(ChangeLines({{.id = 3}}, {JitterTask()}, kNow).size(), 1U);
  EXPECT_EQ(ChangeLines({{.id = 3}}, {{.id = 3}}, kNow).size(), 0U);
}

}  // namespace
}  // namespace ipsla::ctl
