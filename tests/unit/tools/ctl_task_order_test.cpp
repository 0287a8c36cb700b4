#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/task_order.h"
#include "tools/ctl_tasks.h"

namespace ipsla::ctl {
namespace {

using testing::ElementsAre;

/// 3 is fine and 12 s old, 5 failed 185 s ago, 6 is fine, fast and fresh, 9 has not run.
std::vector<std::int32_t> Sorted(const std::string& key, const TaskRules& rules) {
  TaskView fresh = test::JitterTask();
  fresh.id = 6;
  fresh.last->rtt->avg = 0.1;
  fresh.last->ds_packets = 9;
  fresh.last->finish_time = test::kNow;
  std::vector<TaskView> tasks{{.id = 9}, fresh, test::FailedTask(), test::JitterTask()};
  SortTasks(SortKeyOf(key, false), rules, &tasks);
  std::vector<std::int32_t> ids;
  for (const TaskView& task : tasks) {
    ids.push_back(task.id);
  }
  return ids;
}

TEST(TaskOrder, IsByTheKey) {
  const TaskRules rules{.now = test::kNow};
  EXPECT_THAT(Sorted("failing", rules), ElementsAre(5, 3, 6, 9));
  EXPECT_THAT(Sorted("", rules), ElementsAre(5, 3, 6, 9));
  EXPECT_THAT(Sorted("id", rules), ElementsAre(3, 5, 6, 9));
  EXPECT_THAT(Sorted("age", rules), ElementsAre(5, 3, 6, 9));
  EXPECT_THAT(Sorted("rtt", rules), ElementsAre(3, 6, 5, 9));
  EXPECT_THAT(Sorted("loss", rules), ElementsAre(3, 6, 5, 9));
}

TEST(TaskOrder, CountsStaleResultsAsFailingWhereTheyDo) {
  const TaskRules rules{.now = test::kNow, .max_age_s = 10, .stale_fails = true};
  EXPECT_THAT(Sorted("failing", rules), ElementsAre(3, 5, 6, 9));
}

TEST(TaskOrder, IsByIdForPrograms) {
  EXPECT_EQ(SortKeyOf("", true), SortKey::kId);
  EXPECT_EQ(SortKeyOf("loss", true), SortKey::kLoss);
  EXPECT_EQ(SortKeyNames().size(), 5U);
}

}  // namespace
}  // namespace ipsla::ctl
