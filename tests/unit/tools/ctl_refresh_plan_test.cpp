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
                {1, 2}, kRefreshBudget, kTime);
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
  EXPECT_THAT(RequestedIds(plan.Next(tasks, {1}, kRefreshBudget, kTime + 1)), ElementsAre(1, 3, 4));
  EXPECT_THAT(RequestedIds(plan.Next(tasks, {1}, kRefreshBudget, kTime + 60)),
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
  EXPECT_THAT(RequestedIds(plan.Next(tasks, {4}, for_two, kTime + 3)), ElementsAre(2, 4))
      << "what is seen comes first";
}

TEST(RefreshPlan, AsksForOneWhateverItCosts) {
  RefreshPlan plan({});
  EXPECT_THAT(RequestedIds(plan.Next({{.id = 1}, {.id = 2}}, {}, 10, kTime)), ElementsAre(1));
}

}  // namespace
}  // namespace ipsla::ctl
