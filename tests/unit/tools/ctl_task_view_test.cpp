#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/display_text.h"
#include "ctl/task_groups.h"
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

constexpr TaskRules kRules{.now = kNow};

TextTable TableOf(const TaskView& task) {
  return TaskTable({task}, kRules);
}

std::vector<std::string> RowOf(const TaskView& task) {
  return Texts(TableOf(task).rows.front().cells);
}

TEST(TaskTable, ShowsAJitterTask) {
  EXPECT_THAT(RowOf(JitterTask()),
              ElementsAre("3", "udp-jitter", "blue", "10.0.0.2", "ok", "12s", "1.200",
                          "0.500/0.700", "0.050", "30%", "10%/22.2%", "0.040/0.050", "7", "1"));
  EXPECT_THAT(TableOf(JitterTask()).rows.front().notes, IsEmpty());
}

TEST(TaskTable, ShowsNoOneWayValuesOfAnEchoTask) {
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kIcmpEcho;
  EXPECT_THAT(RowOf(task), ElementsAre("3", "icmp-echo", "blue", "10.0.0.2", "ok", "12s", "1.200",
                                       "-", "-", "30%", "-", "-", "7", "1"));
}

TEST(TaskTable, ShowsTheReasonOfAFailedRunBelowIt) {
  EXPECT_THAT(RowOf(FailedTask()), ElementsAre("5", "udp-echo", "-", "10.0.0.9", "FAIL", "3m05s",
                                               "-", "-", "-", "-", "-", "-", "0", "4"));
  const TableRow row = TableOf(FailedTask()).rows.front();
  EXPECT_EQ(row.cells[4].style, CellStyle::kBad);
  EXPECT_THAT(Texts(row.notes), ElementsAre("timeout, no samples"));
  EXPECT_EQ(row.notes[0].style, CellStyle::kBad);
}

TEST(TaskTable, ShowsATaskWithoutAResult) {
  EXPECT_THAT(RowOf({.id = 9}), ElementsAre("9", "-", "-", "-", "not run", "-", "-", "-", "-", "-",
                                            "-", "-", "-", "-"));
  EXPECT_EQ(RowOf({.id = 9, .scheduled = false})[4], "off");
  const TaskView planned{
      .id = 9,
      .plan = client::TaskPlan{
          .type = SlaTestType::kIcmpEcho, .vrf = "blue", .dst_address = "10.0.0.7"}};
  EXPECT_THAT(RowOf(planned), ElementsAre("9", "icmp-echo", "blue", "10.0.0.7", "not run", "-", "-",
                                          "-", "-", "-", "-", "-", "-", "-"));
}

TEST(TaskTable, ShowsNoValueThatWasNotMeasured) {
  TaskView task = JitterTask();
  task.last->latency->sd.avg = std::nullopt;
  task.last->jitter->ds.deviation = std::nullopt;
  task.last->loss.reset();
  task.last->sd_packets = 0;
  EXPECT_THAT(RowOf(task), ElementsAre("3", "udp-jitter", "blue", "10.0.0.2", "ok", "12s", "1.200",
                                       "-/0.700", "0.040", "-", "-", "0.040/-", "7", "1"));
}

TEST(TaskTable, RemarksThatNoReplyWasUsable) {
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kUdpJitterNtp;
  EXPECT_THAT(RowOf(task), ElementsAre("3", "udp-jitter-ntp", "blue", "10.0.0.2", "ok", "12s", "-",
                                       "-", "-", "-", "-", "-", "7", "1"));
  EXPECT_THAT(Texts(TableOf(task).rows.front().notes), ElementsAre("no usable replies"));
}

TEST(TaskTable, MarksAStaleResult) {
  TaskView task = JitterTask();
  task.plan = client::TaskPlan{.period_s = 5};
  const TableRow row = TableOf(task).rows.front();
  EXPECT_EQ(row.cells[4].text, "stale");
  EXPECT_EQ(row.cells[4].style, CellStyle::kDoubtful);
  EXPECT_THAT(Texts(row.notes), ElementsAre("stale: older than twice its period of 5 s"));
}

TEST(TaskTable, PrintsNamesThatATerminalWouldObeyHarmlessly) {
  TaskView task = JitterTask();
  task.last->vrf = "a\x1b[31m";
  EXPECT_EQ(RowOf(task)[2], "a\uFFFD[31m");
}

TEST(TaskTable, HasRoomForItsTenMainColumnsAt80) {
  TaskView task = JitterTask();
  task.id = 1001;
  task.last->dst_address = "192.0.2.201";
  const auto lines = RenderTable(TaskTable({task, FailedTask()}, kRules), {.width = 80});
  EXPECT_EQ(lines.front().find("  ID TYPE"), 0U) << lines.front();
  for (const char* column :
       {"VRF", "DEST", "RESULT", "AGE", "RTT", "ONE-WAY sd/ds", "JITTER", "LOSS"}) {
    EXPECT_NE(lines.front().find(column), std::string::npos) << lines.front();
  }
  EXPECT_EQ(lines.front().find("FAILED"), std::string::npos);
}

// What kLossColumnsFrom leaves out is never missed.
TEST(TaskTable, HasNoRoomForLossPerDirectionBelowTheWidthThatAsksForIt) {
  TaskView task = JitterTask();
  task.last->vrf.clear();
  task.last->dst_address = "1.1.1.1";
  task.last->finish_time = kNow;
  const auto narrow = RenderTable(TaskTable({task}, kRules), {.width = kLossColumnsFrom - 1});
  EXPECT_EQ(narrow.front().find("LOSS sd/ds"), std::string::npos) << narrow.front();
  EXPECT_FALSE(TableGroups(kLossColumnsFrom - 1).contains("loss-values"));
  EXPECT_TRUE(TableGroups(kLossColumnsFrom).contains("loss-values"));
  EXPECT_TRUE(TableGroups(0).contains("loss-values"));
}

TEST(TaskTable, LeavesColumnsByRank) {
  const auto header = [](std::size_t width) {
    return RenderTable(TaskTable({JitterTask()}, kRules), {.width = width}).front();
  };
  EXPECT_EQ(header(40), "ID DEST     RESULT AGE   RTT LOSS");
  EXPECT_EQ(header(20), "ID DEST     RESULT");
}

TEST(TaskRulesTest, CountAStaleResultAsFailingWhereAsked) {
  TaskView task = JitterTask();
  EXPECT_FALSE(CountsAsFailing(task, {.now = kNow, .max_age_s = 10}));
  EXPECT_TRUE(CountsAsFailing(task, {.now = kNow, .max_age_s = 10, .stale_fails = true}));
  EXPECT_FALSE(CountsAsFailing(task, {.now = kNow, .max_age_s = 20, .stale_fails = true}));
  EXPECT_FALSE(CountsAsFailing({.id = 9}, {.now = kNow, .max_age_s = 10, .stale_fails = true}));
  EXPECT_TRUE(CountsAsFailing(FailedTask(), kRules));
}

TEST(TaskHints, StandBelowTheFirstOfEachReason) {
  TaskView stale = FailedTask();
  stale.plan = client::TaskPlan{.period_s = 5};
  TaskView other = FailedTask();
  other.last->error = "never heard of";
  const std::vector<TaskView> tasks{JitterTask(), stale, FailedTask(), other};
  TextTable table = TaskTable(tasks, kRules);
  AddHints(tasks, &table);
  EXPECT_THAT(table.rows[0].notes, IsEmpty());
  EXPECT_THAT(Texts(table.rows[1].notes),
              ElementsAre("timeout, no samples", testing::StartsWith("hint: no probe came back"),
                          "stale: older than twice its period of 5 s"));
  EXPECT_THAT(Texts(table.rows[2].notes), ElementsAre("timeout, no samples"));
  EXPECT_THAT(Texts(table.rows[3].notes), ElementsAre("never heard of"));
}

TEST(TaskHints, SpeakOfTheTasksOwnType) {
  TaskView jitter = JitterTask();
  jitter.last->rtt->avg.reset();
  TaskView ntp = jitter;
  ntp.last->type = SlaTestType::kUdpJitterNtp;
  const std::vector<TaskView> tasks{jitter, ntp, ntp};
  TextTable table = TaskTable(tasks, kRules);
  AddHints(tasks, &table);
  EXPECT_THAT(Texts(table.rows[0].notes),
              ElementsAre("no usable replies", testing::StartsWith("hint: all replies came")));
  EXPECT_THAT(Texts(table.rows[1].notes),
              ElementsAre("no usable replies", testing::StartsWith("hint: udp-jitter-ntp keeps")));
  EXPECT_THAT(Texts(table.rows[2].notes), ElementsAre("no usable replies"));
}

TEST(ClockRemark, IsMadeWhereOneWayValuesNeedTheClock) {
  const client::ClockState unsynchronised{.synchronised = false};
  EXPECT_EQ(ClockRemark({FailedTask(), JitterTask()}, unsynchronised),
            "the clock of this machine is not synchronised: one-way values may be wrong");
  EXPECT_EQ(ClockRemark({JitterTask()}, {.synchronised = true}), "");
  EXPECT_EQ(ClockRemark({JitterTask()}, {}), "");
  EXPECT_EQ(ClockRemark({FailedTask(), {.id = 9}}, unsynchronised), "");
}

const client::ClockState kClock{.synchronised = true, .estimated_error_ms = 0.25};

std::vector<std::string> DetailsOf(const TaskView& task, const TableLayout& layout = {}) {
  return TaskDetails(task, kRules, kClock, layout);
}

TEST(TaskDetails, ShowsEveryValueOfAJitterTask) {
  const test::LocalTimeZone zone("UTC0");
  EXPECT_THAT(
      DetailsOf(JitterTask()),
      ElementsAre(
          "task 3 udp-jitter 10.0.0.1 -> 10.0.0.2, VRF blue, interface eth0: ok",
          "  run of 2023-11-14 22:13:20 to 2023-11-14 22:13:22, 12s ago; 7 ok, 1 failed",
          "  ms                       min       avg       max deviation",
          "  round trip             1.000     1.200     1.500         -",
          "  one-way SD             0.400     0.500     0.600         -",
          "  one-way DS                 -     0.700     0.800         -",
          "  jitter SD                  -         -         -     0.040",
          "  jitter DS                  -         -         -     0.050",
          "  clock of this machine: synchronised, estimated error 0.25 ms",
          "  probes                    SD        DS", "  packets                   10         7",
          "  samples                    9         7", "  lost                       1         2",
          "  lost %                    10      22.2", "  out of sequence            4         5",
          "  late 6, skipped 0, duplicate 8"));
}

TEST(TaskDetails, KeepsItsColumnsOnANarrowTerminal) {
  const auto lines = DetailsOf(JitterTask(), {.width = 40});
  for (const char* line :
       {"  ms             min   avg   max   dev", "  round trip   1.000 1.200 1.500     -",
        "  probes          SD    DS", "  lost %          10  22.2", "  out of seq.      4     5"}) {
    EXPECT_THAT(lines, testing::Contains(line));
  }
}

TEST(TaskDetails, ShowsWhatAnEchoTaskMeasures) {
  const test::LocalTimeZone zone("UTC0");
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kUdpEcho;
  task.last->vrf.clear();
  task.last->interface.clear();
  EXPECT_THAT(
      DetailsOf(task),
      ElementsAre("task 3 udp-echo 10.0.0.1 -> 10.0.0.2: ok",
                  "  run of 2023-11-14 22:13:20 to 2023-11-14 22:13:22, 12s ago; 7 ok, 1 failed",
                  "  ms                       min       avg       max deviation",
                  "  round trip                 -     1.200     1.500         -",
                  "  probes                    SD        DS",
                  "  packets                   10         7",
                  "  samples                    9         7"));
}

TEST(TaskDetails, ShowsTheReasonOfAFailedRun) {
  const test::LocalTimeZone zone("UTC0");
  EXPECT_THAT(
      DetailsOf(FailedTask(), {.colour = true}),
      ElementsAre("task 5 udp-echo - -> 10.0.0.9: \x1b[1;31mFAIL\x1b[0m",
                  "  run of 2023-11-14 22:10:20 to 2023-11-14 22:10:29, 3m05s ago; 0 ok, 4 failed",
                  "  \x1b[1;31mtimeout, no samples\x1b[0m"));
  EXPECT_THAT(DetailsOf({.id = 9}), ElementsAre("task 9: not run"));
}

TEST(TaskDetails, ShowsNoFiguresWithoutAUsableReply) {
  const test::LocalTimeZone zone("UTC0");
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kUdpJitterNtp;
  EXPECT_THAT(DetailsOf(task), ElementsAre(testing::_, testing::_, "  no usable replies",
                                           "  10 probes sent, 7 replies, none usable"));
}

TEST(TaskDetails, ShowsNoLossPerDirectionThatCannotBeBelieved) {
  TaskView task = JitterTask();
  task.last->loss->skipped = 1;
  const auto lines = DetailsOf(task);
  for (const char* line :
       {"  lost                       -         -", "  lost %                     -         -",
        "  late 6, skipped 1, duplicate 8"}) {
    EXPECT_THAT(lines, testing::Contains(line));
  }
}

TEST(TaskDetails, FitANarrowTerminal) {
  for (const std::string& line : DetailsOf(JitterTask(), {.width = 40})) {
    EXPECT_LE(DisplayWidth(line), 40U) << line;
  }
  EXPECT_THAT(DetailsOf(JitterTask(), {.width = 40}),
              testing::Contains("  round trip   1.000 1.200 1.500     -"));
}

TEST(WatchChanges, MarksWhatChangedButNotTheAge) {
  TaskView later = JitterTask();
  later.last->rtt->avg = 2.5;
  later.last->finish_time += 2;
  const TextTable before = TaskTable({JitterTask()}, kRules);
  TextTable after = TaskTable({later, FailedTask()}, kRules);
  MarkChanges(before, &after);
  std::vector<std::string> marked;
  for (const TableCell& cell : after.rows[0].cells) {
    if (cell.style == CellStyle::kChanged) {
      marked.push_back(cell.text);
    }
  }
  EXPECT_THAT(marked, ElementsAre("2.500"));
  EXPECT_EQ(after.rows[1].cells[0].style, CellStyle::kChanged) << "a task that is new";
  EXPECT_EQ(after.rows[1].cells[1].style, CellStyle::kPlain);
}

TEST(WatchChanges, WritesALineForEachTaskAtFirst) {
  const test::LocalTimeZone zone("UTC0");
  EXPECT_THAT(
      ChangeLines({}, {JitterTask(), FailedTask(), {.id = 9}}, kRules),
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
  EXPECT_THAT(ChangeLines({JitterTask()}, {JitterTask()}, {.now = kNow + 5}), IsEmpty());
  TaskView failed = JitterTask();
  failed.last->status = "fail";
  failed.last->error = "timeout, no samples";
  ++failed.last->failed_count;
  EXPECT_THAT(
      ChangeLines({JitterTask(), FailedTask()}, {failed}, kRules),
      ElementsAre(
          "2023-11-14 22:13:34 task 3 udp-jitter vrf=blue dst=10.0.0.2 result=FAIL* ok=7 failed=2 "
          "error=\"timeout, no samples\"",
          "2023-11-14 22:13:34 task 5 result=gone"));
}

TEST(WatchChanges, ListedResultsWaitForTheirValues) {
  TaskView listed = JitterTask();
  listed.last->rtt.reset();
  ++listed.last->successful_count;
  EXPECT_THAT(WithKnownValues({}, {listed}), IsEmpty());
  const auto kept = WithKnownValues({JitterTask()}, {listed});
  ASSERT_EQ(kept.size(), 1U);
  EXPECT_EQ(kept[0].last->successful_count, 7);
  EXPECT_TRUE(kept[0].last->rtt);
  TaskView failed = FailedTask();
  failed.last->rtt.reset();
  EXPECT_EQ(WithKnownValues({}, {JitterTask(), failed, {.id = 9}}).size(), 3U)
      << "neither a failed run nor a task that has not run has values to wait for";
}

TEST(WatchChanges, WritesALineForATasksFirstResult) {
  EXPECT_EQ(ChangeLines({{.id = 3}}, {JitterTask()}, kRules).size(), 1U);
  EXPECT_EQ(ChangeLines({{.id = 3}}, {{.id = 3}}, kRules).size(), 0U);
}

}  // namespace
}  // namespace ipsla::ctl
