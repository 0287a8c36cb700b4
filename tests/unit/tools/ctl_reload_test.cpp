#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/task_json.h"
#include "ctl/json_out.h"
#include "ctl/reload.h"
#include "ctl/reload_check.h"
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
  return CompareSnapshots(Snapshot({before}), Snapshot({after})).changed;
}

TEST(Reload, TellsAddedRemovedAndUnchangedTasks) {
  const ReloadChanges changes = CompareSnapshots(Snapshot({test::JitterTask(), test::FailedTask()}),
                                                 Snapshot({test::JitterTask(), {.id = 9}}));
  EXPECT_THAT(changes.added, ElementsAre(9));
  EXPECT_THAT(changes.removed, ElementsAre(5));
  EXPECT_THAT(changes.changed, IsEmpty());
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
  EXPECT_THAT(ReloadLines({{9, 10}, {5}, {3}, {1, 2}, {{2, 7, "invalid ttl value"}}}),
              ElementsAre("tasks reloaded: 2 added, 1 removed, 1 changed, 2 unchanged, 1 skipped",
                          "added:     9 10", "removed:   5", "changed:   3",
                          "skipped:   task 2 (id 7): invalid ttl value"));
  EXPECT_THAT(ReloadLines({}),
              ElementsAre("tasks reloaded: 0 added, 0 removed, 0 changed, 0 unchanged, 0 skipped"));
  EXPECT_EQ(ReloadJson({{9, 10}, {5}, {3}, {}, {{2, std::nullopt, "x"}}}),
            R"({"reloaded":"tasks","added":[9,10],"removed":[5],"changed":[3],"unchanged":[],)"
            R"("skipped":[{"number":2,"id":null,"reason":"x"}]})");
}

TEST(ReloadCheck, NamesTasksWhoseKeyIsGone) {
  const std::string keychain_task =
      CompactJson(test::Edited(test::ValidTask(),
                               {{"control-phase.authentication",
                                 R"({"mode": "keychain", "algorithm": "sha256", "key-id": 257})"}})
                      .get());
  const std::string tasks =
      R"({"IP-SLA-tasks": [)" + keychain_task + ", " + test::ValidTask() + ", 5]}";
  EXPECT_THAT(TasksWithoutKey(tasks, {{257, "k"}}),
              ElementsAre("task 7 uses key 1, which the keychain would not have"));
  EXPECT_THAT(TasksWithoutKey(tasks, {{1, "k"}}), IsEmpty());
  EXPECT_THAT(TasksWithoutKey("nonsense", {}), IsEmpty());
}

TEST(ReloadCheck, ObjectsToFilesThatTheDaemonDoesNotRead) {
  EXPECT_THAT(CheckTasksReload("", nullptr).objections,
              ElementsAre("which file the daemon reads cannot be told from here: name it"));
  const client::DaemonProcess daemon{.tasks_file = "/nonexistent/tasks.json",
                                     .keychain_file = "/nonexistent/keys.json"};
  EXPECT_THAT(CheckTasksReload("/elsewhere", &daemon).objections,
              ElementsAre("the daemon reads /nonexistent/tasks.json, not /elsewhere"));
  const ReloadCheck keychain = CheckKeychainReload("", &daemon);
  EXPECT_THAT(keychain.objections,
              ElementsAre("/nonexistent/keys.json: the file cannot be read: No such file or "
                          "directory"));
  EXPECT_TRUE(keychain.would_end_daemon);
}

}  // namespace
}  // namespace ipsla::ctl
