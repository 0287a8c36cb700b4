#include <fcntl.h>
#include <sys/stat.h>

#include <array>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/scratch_file.h"
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

void WriteTime(const std::string& file, std::int64_t seconds) {
  const std::array<timespec, 2> times{{{seconds, 0}, {seconds, 0}}};
  EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times.data(), 0), 0);
}

/// A tasks file with task 7, which uses no key, and task 8, which uses key 77.
std::string TasksWithAKey() {
  const std::string with_key =
      CompactJson(test::Edited(test::ValidTask(),
                               {{"sla-id", "8"},
                                {"control-phase.authentication",
                                 R"({"mode": "keychain", "algorithm": "sha256", "key-id": 77})"}})
                      .get());
  const std::string without = CompactJson(
      test::Edited(test::ValidTask(), {{"control-phase.authentication", R"({"mode": "no"})"}})
          .get());
  return R"({"IP-SLA-tasks": [)" + with_key + ", 5, " + without + "]}";
}

TEST(ReloadCheck, NamesTasksThatTheDaemonDidNotTake) {
  ReloadCheck check;
  check.tasks = FaultlessTasks(TasksWithAKey());
  EXPECT_THAT(SkippedLines(TasksNotTaken(check, {}), "task"),
              ElementsAre("skipped:   task 1 (id 8): not taken; the daemon may hold older keys: "
                          "ip-sla-ctl reload keychain, then reload tasks again",
                          "skipped:   task 3 (id 7): not taken: the daemon's log says why, or it "
                          "reads another file"));
  EXPECT_THAT(TasksNotTaken(check, {{7, true}, {8, false}}), IsEmpty())
      << "a task that is not scheduled is there, too";
  check.skipped = {{1, 8, "invalid scheduled time"}};
  EXPECT_EQ(TasksNotTaken(check, {}).size(), 1U) << "what is known to be skipped is told once";
}

TEST(ReloadCheck, WarnsOfKeysThatMayNotBeLoadedYet) {
  const auto warning = [](std::int64_t tasks_age, std::int64_t keys_age, const std::string& text) {
    constexpr std::int64_t kStarted = 1700000000;
    const test::ScratchFile tasks(text);
    const test::ScratchFile keys("{}");
    WriteTime(tasks.Name(), kStarted - tasks_age);
    WriteTime(keys.Name(), kStarted - keys_age);
    const client::DaemonProcess daemon{
        .started = kStarted, .tasks_file = tasks.Name(), .keychain_file = keys.Name()};
    const std::string line = KeychainFirstWarning(daemon, FaultlessTasks(text));
    return line.starts_with("warning: " + keys.Name()) ? line.substr(9 + keys.Name().size()) : line;
  };
  EXPECT_EQ(warning(-60, -60, TasksWithAKey()),
            " changed since the daemon's start, and task 8 uses its keys: unless the daemon has "
            "read it since, \"ip-sla-ctl reload keychain\" goes first");
  EXPECT_EQ(warning(-60, 60, TasksWithAKey()), "");
  EXPECT_EQ(warning(60, -60, TasksWithAKey()), "");
  EXPECT_EQ(warning(-60, -60, R"({"IP-SLA-tasks": []})"), "");
}

TEST(ReloadCheck, ObjectsToFilesThatTheDaemonDoesNotRead) {
  EXPECT_THAT(CheckTasksReload("", nullptr).objections,
              ElementsAre("which file the daemon reads cannot be told from here: name it"));
  const client::DaemonProcess daemon{.tasks_file = "/nonexistent/tasks.json",
                                     .keychain_file = "/nonexistent/keys.json"};
  EXPECT_THAT(CheckTasksReload("/elsewhere", &daemon).objections,
              ElementsAre("the daemon reads /nonexistent/tasks.json, not /elsewhere",
                          "/nonexistent/tasks.json: the file cannot be read: No such file or "
                          "directory"));
  const std::string fault =
      "/nonexistent/keys.json: the file cannot be read: No such file or directory";
  const ReloadCheck keychain = CheckKeychainReload("", &daemon);
  EXPECT_THAT(keychain.objections, ElementsAre(fault));
  EXPECT_TRUE(keychain.would_end_daemon);
  const ReloadCheck another = CheckKeychainReload("/elsewhere", &daemon);
  EXPECT_THAT(another.objections,
              ElementsAre("the daemon reads /nonexistent/keys.json, not /elsewhere", fault));
  EXPECT_TRUE(another.would_end_daemon) << "whatever file was named";
}

}  // namespace
}  // namespace ipsla::ctl
