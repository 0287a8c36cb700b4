#include <gtest/gtest.h>

#include "client/task_view.h"
#include "tools/ctl_tasks.h"

namespace ipsla::client {
namespace {

using test::FailedTask;
using test::JitterTask;
using test::kNow;

TaskView Planned(TaskView task, std::int64_t period_s, std::optional<std::int64_t> life_s = {}) {
  task.plan = TaskPlan{.period_s = period_s, .life_s = life_s};
  return task;
}

TEST(TaskFigures, AreThoseOfTheType) {
  const TaskFigures jitter = Figures(*JitterTask().last);
  EXPECT_EQ(jitter.rtt, 1.2);
  EXPECT_EQ(jitter.latency_sd, 0.5);
  EXPECT_EQ(jitter.jitter_ds, 0.05);
  EXPECT_EQ(jitter.loss, 30);
  EXPECT_EQ(jitter.loss_sd, 10);
  TaskView echo = JitterTask();
  echo.last->type = SlaTestType::kIcmpEcho;
  const TaskFigures figures = Figures(*echo.last);
  EXPECT_EQ(figures.rtt, 1.2);
  EXPECT_EQ(figures.loss, 30);
  EXPECT_FALSE(figures.latency_sd || figures.jitter_sd || figures.loss_sd);
}

TEST(TaskFigures, AreNoneOfAFailedRun) {
  const TaskFigures figures = Figures(*FailedTask().last);
  EXPECT_FALSE(figures.rtt || figures.loss || figures.loss_sd);
}

TEST(TaskFigures, AreNoneWithoutAUsableReply) {
  TaskView task = JitterTask();
  task.last->rtt->avg = std::nullopt;
  EXPECT_TRUE(HasNoUsableReplies(*task.last));
  EXPECT_EQ(ReasonOf(task), "no usable replies");
  const TaskFigures figures = Figures(*task.last);
  EXPECT_FALSE(figures.latency_ds || figures.jitter_ds || figures.loss || figures.loss_ds);
}

TEST(TaskFigures, AreNoneOfUdpJitterNtp) {
  TaskView task = JitterTask();
  task.last->type = SlaTestType::kUdpJitterNtp;
  task.last->rtt.reset();
  EXPECT_EQ(ReasonOf(task), "no usable replies");
  EXPECT_FALSE(Figures(*task.last).loss);
}

// A reply that is left out of the samples is counted by the responder all the same.
TEST(TaskFigures, HaveNoDirectionLossWhereSkippedRepliesFalsifyIt) {
  TaskView task = JitterTask();
  task.last->loss->skipped = 1;
  EXPECT_FALSE(Figures(*task.last).loss_sd || Figures(*task.last).loss_ds);
  EXPECT_EQ(Figures(*task.last).loss, 30);
  task = JitterTask();
  task.last->loss->sd_loss = -2;
  EXPECT_FALSE(Figures(*task.last).loss_sd || Figures(*task.last).loss_ds);
}

TEST(TaskReason, IsTheErrorOfAFailedRun) {
  EXPECT_EQ(ReasonOf(FailedTask()), "timeout, no samples");
  EXPECT_EQ(ReasonOf(JitterTask()), "");
  EXPECT_EQ(ReasonOf({.id = 9}), "");
  TaskView silent = FailedTask();
  silent.last->error.clear();
  EXPECT_EQ(ReasonOf(silent), "the last run failed");
}

TEST(TaskAge, CountsFromTheRunsEnd) {
  EXPECT_EQ(AgeOf(JitterTask(), kNow), 12);
  EXPECT_EQ(AgeOf(JitterTask(), kNow - 100), 0) << "a clock that was set back";
  EXPECT_EQ(AgeOf({.id = 9}, kNow), std::nullopt);
}

TEST(TaskFreshness, EndsAfterTwoPeriods) {
  EXPECT_EQ(FreshnessOf(Planned(JitterTask(), 6), kNow, {}).stale, false) << "12 s, twice 6";
  const Freshness late = FreshnessOf(Planned(JitterTask(), 5), kNow, {});
  EXPECT_EQ(late.stale, true);
  EXPECT_EQ(late.reason, "older than twice its period of 5 s");
}

TEST(TaskFreshness, EndsAtTheGivenAge) {
  EXPECT_EQ(FreshnessOf(JitterTask(), kNow, 12).stale, false);
  const Freshness late = FreshnessOf(Planned(JitterTask(), 60), kNow, 11);
  EXPECT_EQ(late.stale, true);
  EXPECT_EQ(late.reason, "older than 11 s");
}

// The last run began 14 s ago, so the task was started then or earlier.
TEST(TaskFreshness, EndsWithTheTasksLife) {
  EXPECT_EQ(FreshnessOf(Planned(JitterTask(), 60, 14), kNow, {}).stale, false);
  const Freshness over = FreshnessOf(Planned(JitterTask(), 60, 13), kNow, {});
  EXPECT_EQ(over.stale, true);
  EXPECT_EQ(over.reason, "its life of 13 s has ended");
}

// Eight runs, 5 s apart: the first began 49 s ago.
TEST(TaskFreshness, NamesTheLifeWhereThatIsTheLikelyCause) {
  EXPECT_EQ(FreshnessOf(Planned(JitterTask(), 5, 40), kNow, {}).reason,
            "its life of 40 s has ended");
  EXPECT_EQ(FreshnessOf(Planned(JitterTask(), 5, 50), kNow, {}).reason,
            "older than twice its period of 5 s");
}

TEST(TaskFreshness, CannotBeToldWithoutPeriodOrLimit) {
  EXPECT_EQ(FreshnessOf(JitterTask(), kNow, {}).stale, std::nullopt);
  EXPECT_EQ(FreshnessOf({.id = 9}, kNow, 60).stale, std::nullopt);
}

}  // namespace
}  // namespace ipsla::client
