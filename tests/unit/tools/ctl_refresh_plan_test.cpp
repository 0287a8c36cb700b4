#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/refresh_plan.h"

namespace ipsla::ctl {
namespace {

using client::TaskView;
using testing::ElementsAre;

constexpr std::int64_t kTime = 1700000000;

/// A task of a type and period whose last run began so many seconds ago.
TaskView TaskOf(std::int32_t id, SlaTestType type, std::int64_t age, std::int64_t period) {
  client::TaskStatistics last;
  last.id = id;
  last.status = "successful";
  last.type = type;
  last.start_time = kTime - age;
  return {.id = id, .last = last, .plan = client::TaskPlan{.period_s = period}};
}

std::vector<std::int32_t> RequestedIds(const StatisticsRequest& request) {
  std::vector<std::int32_t> ids;
  for (const auto& [id, groups] : request) {
    ids.push_back(id);
  }
  return ids;
}

TEST(RefreshPlan, AsksForTheGroupsThatAreWantedAndMeasured) {
  RefreshPlan plan({"jitter-values", "rtt-values"});
  const auto request =
      plan.Next({TaskOf(1, SlaTestType::kIcmpEcho, 5, 2), TaskOf(2, SlaTestType::kUdpJitter, 5, 2)},
                {.visible = {1, 2}}, kRefreshBudget, kTime);
  EXPECT_THAT(request.at(1), ElementsAre("rtt-values"));
  EXPECT_THAT(request.at(2), ElementsAre("jitter-values", "rtt-values"));
}

TEST(RefreshPlan, AsksAlwaysForWhatIsSeenAndForTheRestWhenItMayHaveNews) {
  RefreshPlan plan({});
  const std::vector<TaskView> tasks{TaskOf(1, SlaTestType::kIcmpEcho, 5, 60),
                                    TaskOf(2, SlaTestType::kIcmpEcho, 5, 60),
                                    TaskOf(3, SlaTestType::kIcmpEcho, 60, 60),
                                    {.id = 4}};
  (void)plan.Next(tasks, {}, kRefreshBudget, kTime);
  EXPECT_THAT(RequestedIds(plan.Next(tasks, {.visible = {1}}, kRefreshBudget, kTime + 1)),
              ElementsAre(1, 3, 4));
  EXPECT_THAT(RequestedIds(plan.Next(tasks, {.visible = {1}}, kRefreshBudget, kTime + 60)),
              ElementsAre(1, 2, 3, 4))
      << "no task is left alone for longer than a minute";
}

TEST(RefreshPlan, GoesOnWhereTheBudgetEnded) {
  RefreshPlan plan({});
  std::vector<TaskView> tasks;
  for (std::int32_t id = 1; id <= 5; ++id) {
    tasks.push_back(TaskOf(id, SlaTestType::kIcmpEcho, 60, 1));
  }
  const std::size_t for_two = 2 * LogBytesOfResult({});
  EXPECT_THAT(RequestedIds(plan.Next(tasks, {}, for_two, kTime)), ElementsAre(1, 2));
  EXPECT_THAT(RequestedIds(plan.Next(tasks, {}, for_two, kTime + 1)), ElementsAre(3, 4));
  EXPECT_THAT(RequestedIds(plan.Next(tasks, {}, for_two, kTime + 2)), ElementsAre(1, 5));
  EXPECT_THAT(RequestedIds(plan.Next(tasks, {.visible = {4}}, for_two, kTime + 3)),
              ElementsAre(2, 4))
      << "what is seen comes first";
}

TEST(RefreshPlan, AsksForOneWhateverItCosts) {
  RefreshPlan plan({});
  EXPECT_THAT(RequestedIds(plan.Next({{.id = 1}, {.id = 2}}, {}, 10, kTime)), ElementsAre(1));
}

TEST(RefreshPlan, AsksForResultsThatAreDueBehindWhatIsSeenToHaveNews) {
  RefreshPlan plan({});
  const std::vector<TaskView> tasks{
      TaskOf(1, SlaTestType::kIcmpEcho, 60, 60), TaskOf(2, SlaTestType::kIcmpEcho, 5, 60),
      TaskOf(3, SlaTestType::kIcmpEcho, 60, 60), TaskOf(4, SlaTestType::kIcmpEcho, 5, 60)};
  (void)plan.Next(tasks, {}, kRefreshBudget, kTime - 1);
  const RefreshNeeds needs{.visible = {2, 3}, .due = {4}};
  const auto requested = [&](std::size_t count) {
    RefreshPlan copy = plan;
    return RequestedIds(copy.Next(tasks, needs, count * LogBytesOfResult({}), kTime));
  };
  EXPECT_THAT(requested(1), ElementsAre(3));
  EXPECT_THAT(requested(2), ElementsAre(3, 4));
  EXPECT_THAT(requested(3), ElementsAre(2, 3, 4));
  EXPECT_THAT(requested(4), ElementsAre(1, 2, 3, 4));
}

/// With the values of a task that was asked for.
TaskView WithValues(TaskView task) {
  task.last->rtt = {1.0, 2.0, 3.0};
  return task;
}

TEST(TakeListed, KeepsValuesUntilTheNewResultIsAskedFor) {
  const TaskView old = WithValues(TaskOf(1, SlaTestType::kIcmpEcho, 10, 1));
  std::set<std::int32_t> due;
  auto tasks = TakeListed({{1, old}}, {TaskOf(1, SlaTestType::kIcmpEcho, 10, 1)}, &due);
  EXPECT_TRUE(tasks.at(1).last->rtt) << "the same run";
  EXPECT_THAT(due, ElementsAre());
  tasks = TakeListed(tasks, {TaskOf(1, SlaTestType::kIcmpEcho, 9, 1)}, &due);
  EXPECT_TRUE(tasks.at(1).last->rtt);
  EXPECT_EQ(tasks.at(1).last->start_time, kTime - 10);
  EXPECT_THAT(due, ElementsAre(1));
  tasks = TakeListed(tasks, {TaskOf(2, SlaTestType::kIcmpEcho, 9, 1)}, &due);
  EXPECT_THAT(due, ElementsAre(2)) << "one is gone, the other was never asked for";
  EXPECT_FALSE(tasks.contains(1));
}

TEST(TakeListed, ShowsAFailureAtOnceAndATaskThatStartsAfresh) {
  const TaskView old = WithValues(TaskOf(1, SlaTestType::kIcmpEcho, 10, 1));
  TaskView failed = TaskOf(1, SlaTestType::kIcmpEcho, 9, 1);
  failed.last->status = "fail";
  std::set<std::int32_t> due;
  EXPECT_TRUE(TakeListed({{1, old}}, {failed}, &due).at(1).Failed());
  EXPECT_THAT(due, ElementsAre(1));
  EXPECT_FALSE(TakeListed({{1, old}}, {{.id = 1}}, &due).at(1).last);
  EXPECT_THAT(due, ElementsAre());
}

}  // namespace
}  // namespace ipsla::ctl
