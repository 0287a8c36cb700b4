#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/reload.h"
#include "tools/ctl_tasks.h"

namespace ipsla::ctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TaskSnapshot Snapshot(const std::vector<TaskView>& tasks) {
  TaskSnapshot snapshot;
  for (const TaskView& task : tasks) {
    snapshot.configured[task.id] = task.scheduled;
    if (task.last) {
      snapshot.results[task.id] = *task.last;
    }
  }
  return snapshot;
}

/// The ids that a reload from one task to another restarted.
std::vector<std::int32_t> Restarted(const TaskView& before, const TaskView& after) {
  return CompareSnapshots(Snapshot({before}), Snapshot({after})).restarted;
}

TEST(Reload, TellsAddedRemovedAndUnchangedTasks) {
  const ReloadChanges changes = CompareSnapshots(Snapshot({test::JitterTask(), test::FailedTask()}),
                                                 Snapshot({test::JitterTask(), {.id = 9}}));
  EXPECT_THAT(changes.added, ElementsAre(9));
  EXPECT_THAT(changes.removed, ElementsAre(5));
  EXPECT_THAT(changes.restarted, IsEmpty());
  EXPECT_THAT(changes.unchanged, ElementsAre(3));
}

TEST(Reload, TakesATaskThatRanOnAsUnchanged) {
  TaskView after = test::JitterTask();
  after.last->successful_count += 2;
  after.last->start_time += 4;
  after.last->finish_time += 4;
  EXPECT_THAT(Restarted(test::JitterTask(), after), IsEmpty());
  EXPECT_THAT(Restarted({.id = 3}, {.id = 3}), IsEmpty());
  EXPECT_THAT(Restarted({.id = 3}, test::JitterTask()), IsEmpty())
      << "its first result came meanwhile";
}

TEST(Reload, SeesARestartByWhatStartedAfresh) {
  EXPECT_THAT(Restarted(test::JitterTask(), {.id = 3}), ElementsAre(3));
  TaskView fewer = test::JitterTask();
  fewer.last->successful_count = 1;
  fewer.last->failed_count = 0;
  EXPECT_THAT(Restarted(test::JitterTask(), fewer), ElementsAre(3));
  TaskView as_many = test::JitterTask();
  as_many.last->json = R"({"another":"run"})";
  EXPECT_THAT(Restarted(test::JitterTask(), as_many), ElementsAre(3));
  TaskView elsewhere = test::JitterTask();
  elsewhere.last->dst_address = "10.0.0.3";
  elsewhere.last->successful_count = 100;
  EXPECT_THAT(Restarted(test::JitterTask(), elsewhere), ElementsAre(3));
}

TEST(Reload, WritesWhatWasApplied) {
  EXPECT_THAT(ReloadLines({{9, 10}, {5}, {3}, {1, 2}}),
              ElementsAre("tasks reloaded: 2 added, 1 removed, 1 restarted, 2 unchanged",
                          "added:     9 10", "removed:   5", "restarted: 3"));
  EXPECT_THAT(ReloadLines({}),
              ElementsAre("tasks reloaded: 0 added, 0 removed, 0 restarted, 0 unchanged"));
  EXPECT_EQ(ReloadJson({{9, 10}, {5}, {3}, {}}),
            R"({"reloaded":"tasks","added":[9,10],"removed":[5],"restarted":[3],"unchanged":[]})");
}

}  // namespace
}  // namespace ipsla::ctl
