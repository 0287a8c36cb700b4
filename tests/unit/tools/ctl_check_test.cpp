#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/scratch_file.h"
#include "config/task_json.h"
#include "ctl/check.h"
#include "ctl/json_out.h"
#include "support/recording_syslog.h"

namespace ipsla::ctl {
namespace {

using test::ScratchFile;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr timespec kCheckedAt{.tv_sec = 1700000000, .tv_nsec = 0};
constexpr const char* kKeys = R"({"keychain-storage": [{"key-id": 1, "key-string": "secret"}]})";

std::string TasksFile(const std::vector<std::string>& tasks, const std::string& cpus = "[0]") {
  std::string text = R"({"IP-SLA-tasks": [)";
  for (const std::string& task : tasks) {
    text += (text.back() == '[' ? "" : ",") + task;
  }
  return text + "]" + (cpus.empty() ? "" : R"(, "cpus": )" + cpus) + "}";
}

std::string Task(const std::vector<test::Edit>& edits) {
  return CompactJson(test::Edited(test::ValidTask(), edits).get());
}

/// The report's lines with the scratch files' names replaced by "TASKS" and "KEYS".
std::vector<std::string> Lines(const std::string& tasks, const std::string& keychain = kKeys) {
  const ScratchFile tasks_file(tasks);
  const ScratchFile keychain_file(keychain);
  std::vector<std::string> lines =
      CheckLines(CheckFiles(tasks_file.Name(), keychain_file.Name(), kCheckedAt));
  for (std::string& line : lines) {
    const bool about_tasks = line.starts_with(tasks_file.Name() + ":");
    const bool about_keys = line.starts_with(keychain_file.Name() + ":");
    EXPECT_TRUE(about_tasks || about_keys) << line;
    line.replace(0, tasks_file.Name().size(), about_tasks ? "TASKS" : "KEYS");
  }
  return lines;
}

TEST(Check, CountsWhatIsFine) {
  EXPECT_THAT(Lines(TasksFile({Task({}), Task({{"sla-id", "8"}})})),
              ElementsAre("TASKS: 2 tasks, 2 accepted, 0 faults, 0 warnings",
                          "KEYS: 1 key, 1 accepted, 0 faults, 0 warnings"));
}

TEST(Check, NamesEveryFaultOfATaskNotJustTheFirst) {
  EXPECT_THAT(
      Lines(TasksFile({Task({}), Task({{"sla-id", "9"},
                                       {"num-rep-hist", "0"},
                                       {"control-phase.retry", ""},
                                       {"control-phase.authentication.algorithm", "\"md5\""},
                                       {"udp-jitter.ttl", "256"}})})),
      ElementsAre("TASKS: task 2 (id 9): num-rep-hist = 0: invalid history count value",
                  "TASKS: task 2 (id 9): control-phase.retry (missing): no control phase retry "
                  "configuration",
                  "TASKS: task 2 (id 9): control-phase.authentication.algorithm = \"md5\": "
                  "invalid authentication algorithm configuration",
                  "TASKS: task 2 (id 9): udp-jitter.ttl = 256: invalid ttl value",
                  "TASKS: 2 tasks, 1 accepted, 4 faults, 0 warnings",
                  "KEYS: 1 key, 1 accepted, 0 faults, 0 warnings"));
}

TEST(Check, KnowsTheTasksBefore) {
  EXPECT_THAT(Lines(TasksFile({Task({}), Task({})})),
              ElementsAre("TASKS: task 2 (id 7): sla-id = 7: duplicate task",
                          "TASKS: 2 tasks, 1 accepted, 1 fault, 0 warnings", testing::_));
}

TEST(Check, WarnsOfATaskThatReplacesAnother) {
  EXPECT_THAT(
      Lines(TasksFile({Task({}), Task({{"sla-id", "65543"}})})),
      ElementsAre(
          "TASKS: task 2 (id 65543): warning: sla-id = 65543: is kept as 7: ids have 16 bits",
          "TASKS: task 2 (id 65543): warning: sla-id = 65543: replaces task 1",
          "TASKS: 2 tasks, 1 accepted, 0 faults, 2 warnings", testing::_));
}

TEST(Check, WarnsOfAcceptedTasksOnly) {
  EXPECT_THAT(Lines(TasksFile({Task({{"udp-jitter.dst-address", "\"x\""}}),
                               Task({{"sla-id", "8"},
                                     {"udp-jitter.dst-address", "\"x\""},
                                     {"udp-jitter.dscp", "64"}})})),
              ElementsAre("TASKS: task 2 (id 8): udp-jitter.dscp = 64: invalid dscp value",
                          "TASKS: task 1 (id 7): warning: udp-jitter.dst-address = \"x\": "
                          "is no IPv4 address and counts as 0.0.0.0",
                          "TASKS: 2 tasks, 1 accepted, 1 fault, 1 warning", testing::_));
}

TEST(Check, LooksUpKeysOnlyWithAKeychain) {
  const std::string tasks =
      TasksFile({Task({{"control-phase.authentication",
                        R"({"mode": "keychain", "algorithm": "sha256", "key-id": 2})"}})});
  EXPECT_THAT(Lines(tasks),
              ElementsAre("TASKS: task 1 (id 7): control-phase.authentication.key-id = 2: "
                          "invalid control phase authentication secret key id",
                          "TASKS: 1 task, 0 accepted, 1 fault, 0 warnings", testing::_));
  const ScratchFile file(tasks);
  const CheckReport report = CheckFiles(file.Name(), "", kCheckedAt);
  EXPECT_FALSE(report.HasFaults());
  EXPECT_FALSE(report.keychain.has_value());
}

TEST(Check, NamesSkippedKeys) {
  const std::string keys = R"({"keychain-storage": [{"key-id": 1, "key-string": "a"}, {"key-id": 2},
                                                    {"key-id": 1, "key-string": "b"}]})";
  EXPECT_THAT(Lines(TasksFile({}), keys),
              ElementsAre("KEYS: key 2: key id #undefined parse skipped: no key configuration",
                          "KEYS: key 3 (id 1): key id #1 parse skipped: duplicate key",
                          "TASKS: 0 tasks, 0 accepted, 0 faults, 0 warnings",
                          "KEYS: 3 keys, 1 accepted, 2 faults, 0 warnings"));
}

TEST(Check, NamesWhatIsWrongWithAWholeFile) {
  EXPECT_THAT(Lines("{\n \"IP-SLA-tasks\": [\n  nonsense\n]}", "{}"),
              ElementsAre("TASKS: not valid JSON at line 3, column 3",
                          "KEYS: there is no array \"keychain-storage\"",
                          "TASKS: 0 tasks, 0 accepted, 1 fault, 0 warnings",
                          "KEYS: 0 keys, 0 accepted, 1 fault, 0 warnings"));
  EXPECT_THAT(CheckLines(CheckFiles("/nonexistent", "", kCheckedAt)),
              ElementsAre("/nonexistent: the file cannot be read",
                          "/nonexistent: 0 tasks, 0 accepted, 1 fault, 0 warnings"));
}

TEST(Check, WarnsOfCpuListsThatRunNothing) {
  const char* nothing = "names no CPU: the daemon starts no worker threads and runs no test";
  EXPECT_EQ(Lines(TasksFile({}, "")).front(),
            std::string("TASKS: warning: cpus (missing): ") + nothing);
  EXPECT_EQ(Lines(TasksFile({}, "[]")).front(),
            std::string("TASKS: warning: cpus = []: ") + nothing);
  EXPECT_EQ(Lines(TasksFile({}, "2")).front(), std::string("TASKS: warning: cpus = 2: ") + nothing);
  EXPECT_EQ(Lines(TasksFile({}, "[256]")).front(), "TASKS: warning: cpus = 256: counts as CPU 0");
  EXPECT_EQ(Lines(TasksFile({}, "[\"1\"]")).front(),
            "TASKS: warning: cpus = \"1\": counts as CPU 0");
}

TEST(Check, HidesSecrets) {
  const auto lines =
      Lines(TasksFile({Task({{"control-phase.authentication.key-string", "12345"}})}));
  EXPECT_EQ(lines.front(),
            "TASKS: task 1 (id 7): control-phase.authentication.key-string = (hidden): "
            "no control phase authentication key string configuration");
}

TEST(Check, ReportsAnElementThatIsNoObject) {
  const auto lines = Lines(TasksFile({"5"}));
  EXPECT_EQ(lines.front(), "TASKS: task 1: sla-id (missing): invalid main task configuration");
}

TEST(Check, LogsNothing) {
  (void)test::TakeSyslog();
  (void)Lines(TasksFile({Task({{"num-rep-hist", "0"}}), Task({{"udp-jitter.src-address", ""}})}),
              "[]");
  EXPECT_THAT(test::TakeSyslogTexts(), IsEmpty());
}

TEST(Check, WritesJson) {
  const ScratchFile file(TasksFile({Task({{"num-rep-hist", "0"}})}, "[]"));
  const std::string expected =
      R"({"tasks":{"file":")" + file.Name() +
      R"(","elements":1,"accepted":0,"faults":[{"number":1,"id":7,"key":"num-rep-hist","value":"0",)"
      R"("reason":"invalid history count value"}],"warnings":[{"number":null,"id":null,"key":"cpus","value":"[]",)"
      R"("reason":"names no CPU: the daemon starts no worker threads and runs no test"}]},"keychain":null})";
  EXPECT_EQ(CheckJson(CheckFiles(file.Name(), "", kCheckedAt)), expected);
}

}  // namespace
}  // namespace ipsla::ctl
