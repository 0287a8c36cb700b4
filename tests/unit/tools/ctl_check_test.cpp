#include <sys/stat.h>

#include <algorithm>
#include <regex>

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

CheckReport CheckBoth(const std::string& tasks_file, const std::string& keychain_file) {
  return CheckFiles({.tasks_file = tasks_file, .keychain_file = keychain_file, .now = kCheckedAt});
}

/// The report's lines with the scratch files' names replaced by "TASKS" and "KEYS", without the
/// places in them.
std::vector<std::string> Lines(const std::string& tasks, const std::string& keychain = kKeys) {
  const ScratchFile tasks_file(tasks);
  const ScratchFile keychain_file(keychain);
  std::vector<std::string> lines = CheckLines(CheckBoth(tasks_file.Name(), keychain_file.Name()));
  for (std::string& line : lines) {
    const bool about_tasks = line.starts_with(tasks_file.Name() + ":");
    const bool about_keys = line.starts_with(keychain_file.Name() + ":");
    EXPECT_TRUE(about_tasks || about_keys) << line;
    line.replace(0, tasks_file.Name().size(), about_tasks ? "TASKS" : "KEYS");
    line = std::regex_replace(line, std::regex("^([A-Z]+):\\d+:\\d+:"), "$1:");
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
      ElementsAre("TASKS: task 2 (id 9): num-rep-hist = 0: invalid history count value "
                  "(expected a number from 1 to 255)",
                  "TASKS: task 2 (id 9): control-phase.retry (missing): no control phase retry "
                  "configuration (expected seconds, a number of at least 1)",
                  "TASKS: task 2 (id 9): control-phase.authentication.algorithm = \"md5\": "
                  "invalid authentication algorithm configuration (expected sha256 or hmac-sha256)",
                  "TASKS: task 2 (id 9): udp-jitter.ttl = 256: invalid ttl value "
                  "(expected a number from 0 to 255)",
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
              ElementsAre("TASKS: task 2 (id 8): udp-jitter.dscp = 64: invalid dscp value "
                          "(expected a number from 0 to 63)",
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
                          "invalid control phase authentication secret key id "
                          "(expected an id of the keychain file)",
                          "TASKS: 1 task, 0 accepted, 1 fault, 0 warnings", testing::_));
  const ScratchFile file(tasks);
  const CheckReport report = CheckBoth(file.Name(), "");
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
              ElementsAre("TASKS: not valid JSON", "KEYS: there is no array \"keychain-storage\"",
                          "TASKS: 0 tasks, 0 accepted, 1 fault, 0 warnings",
                          "KEYS: 0 keys, 0 accepted, 1 fault, 0 warnings"));
  EXPECT_THAT(CheckLines(CheckBoth("/nonexistent", "")),
              ElementsAre("/nonexistent: the file cannot be read: No such file or directory",
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
            "no control phase authentication key string configuration (expected a text that is "
            "not empty)");
}

TEST(Check, DoesNotShowTheValueOfAKeyThatItDoesNotKnow) {
  const auto lines =
      Lines(TasksFile({Task({{"control-phase.authentication.key_string", R"("do not tell")"}})}));
  EXPECT_EQ(lines.front(),
            "TASKS: task 1 (id 7): warning: control-phase.authentication.key_string: unknown key: "
            "it is not read; did you mean \"key-string\"?");
}

TEST(Check, ReportsAnElementThatIsNoObject) {
  const auto lines = Lines(TasksFile({"5"}));
  EXPECT_EQ(lines.front(),
            "TASKS: task 1: sla-id (missing): invalid main task configuration (expected a number "
            "from 0 to 65535)");
}

TEST(Check, LogsNothing) {
  (void)test::TakeSyslog();
  (void)Lines(TasksFile({Task({{"num-rep-hist", "0"}}), Task({{"udp-jitter.src-address", ""}})}),
              "[]");
  EXPECT_THAT(test::TakeSyslogTexts(), IsEmpty());
}

TEST(Check, SaysTheSumOfTheRunTimeBudget) {
  EXPECT_EQ(Lines(TasksFile({Task({{"scheduler.time", "2"}})})).front(),
            "TASKS: task 1 (id 7): scheduler.time = 2: invalid scheduled time (expected timeout "
            "1000 + num-packets 50 x interval 20 = 2000 ms to be less than the period of 2000 ms)");
  EXPECT_THAT(Lines(TasksFile({Task({{"scheduler.time", "4294968"}})})),
              testing::Contains(testing::EndsWith("the period of 704 ms, both cut to 32 bits)")));
}

TEST(Check, SaysWhereItIs) {
  const ScratchFile file(
      "{\"cpus\": [0],\n \"IP-SLA-tasks\": [\n  {\"sla-id\": 1,\n   \"Num-rep-hist\": 0}]}\n more");
  const std::vector<std::string> lines = CheckLines(CheckBoth(file.Name(), ""));
  const auto has = [&](const std::string& rest) {
    return std::ranges::any_of(
        lines, [&](const std::string& line) { return line.starts_with(file.Name() + rest); });
  };
  EXPECT_TRUE(has(":4:20: task 1 (id 1): num-rep-hist = 0: ")) << "the value";
  EXPECT_TRUE(has(":4:4: task 1 (id 1): warning: Num-rep-hist: ")) << "the name";
  EXPECT_TRUE(has(":3:3: task 1 (id 1): control-phase (missing): ")) << "where it should be";
  EXPECT_TRUE(has(":5:2: warning: the document ends before this")) << "the file";
}

TEST(Check, NamesNestingThatIsTooDeep) {
  const ScratchFile file(std::string(33, '['));
  EXPECT_EQ(CheckLines(CheckBoth(file.Name(), "")).front(),
            file.Name() + ":1:33: nests deeper than 32");
}

TEST(Check, NamesWhatFollowsTheDocument) {
  const std::string nothing = TasksFile({});
  EXPECT_THAT(Lines(nothing + " \n\t "), testing::SizeIs(2));
  EXPECT_EQ(Lines(nothing + "{}").front(),
            "TASKS: warning: the document ends before this, and what follows is not read");
  EXPECT_EQ(Lines(nothing + std::string("\0 more", 6)).front(),
            "TASKS: warning: a NUL byte ends the file here for the daemon");
}

TEST(Check, WarnsOfAKeychainThatOthersCanRead) {
  const ScratchFile tasks(TasksFile({}));
  const ScratchFile keys(kKeys);
  SystemHost host;
  const auto check = [&](mode_t mode, HostView* view) {
    EXPECT_EQ(chmod(keys.Name().c_str(), mode), 0);
    const CheckReport report = CheckFiles({.tasks_file = tasks.Name(),
                                           .keychain_file = keys.Name(),
                                           .now = kCheckedAt,
                                           .host = view});
    EXPECT_FALSE(report.HasFaults());
    return FindingLines(*report.keychain, "key");
  };
  EXPECT_THAT(check(0600, &host), IsEmpty());
  EXPECT_THAT(check(0640, &host),
              ElementsAre(keys.Name() + ": warning: holds keys, and others than its owner can read "
                                        "it (mode 0640)"));
  EXPECT_THAT(check(0604, &host), testing::SizeIs(1));
  EXPECT_THAT(check(0644, nullptr), IsEmpty()) << "the machine is left out";
}

TEST(Check, DoesNotWarnOfAnOpenKeychainWithoutKeys) {
  SystemHost host;
  KeychainStorage none;
  const auto check = [&](const char* text) {
    return CheckKeychain("KEYS", {.text = text, .mode = 0644}, &host, &none).warnings.size();
  };
  EXPECT_EQ(check(R"({"keychain-storage": []})"), 0U);
  EXPECT_EQ(check(R"({"keychain-storage": [{"key-id": 1, "key-string": "a"}]})"), 1U);
  EXPECT_EQ(check(R"({"keychain-storage": [{"key-id": "1", "key-string": "a"}]})"), 1U)
      << "a key that the daemon cannot use is one all the same";
}

TEST(Check, WarnsOfKeysThatNoTaskCanUse) {
  const std::string keys =
      R"({"keychain-storage": [{"key-id": 256, "key-string": "a", "keystring": "b"}], "x": 1})";
  EXPECT_THAT(
      Lines(TasksFile({}), keys),
      ElementsAre("KEYS: warning: x: unknown key: it is not read",
                  "KEYS: key 1 (id 256): warning: keystring: unknown key: it is not read; "
                  "did you mean \"key-string\"?",
                  "KEYS: key 1 (id 256): warning: key-id = 256: is of no use to tasks: their "
                  "key ids have 8 bits",
                  testing::_, testing::_));
}

TEST(Check, CountsATaskThatEndsTheDaemonAsAFault) {
  EXPECT_THAT(
      Lines(TasksFile({Task({{"scheduler.Start-time", "\"soon\""}}), Task({})})),
      ElementsAre("TASKS: task 1 (id 7): scheduler.Start-time = \"soon\": cannot be read as a "
                  "time, which ends the daemon when it creates the test",
                  "TASKS: task 2 (id 7): sla-id = 7: duplicate task",
                  "TASKS: 2 tasks, 0 accepted, 2 faults, 0 warnings", testing::_));
}

TEST(Check, TellsWhatEndsTheDaemonFromWhatItSkips) {
  const auto is_fatal = [](const std::string& tasks, const std::string& keychain) {
    const ScratchFile tasks_file(tasks);
    const ScratchFile keychain_file(keychain);
    const CheckReport report = CheckBoth(tasks_file.Name(), keychain_file.Name());
    EXPECT_TRUE(report.HasFaults()) << tasks << keychain;
    return report.IsFatal();
  };
  const std::string good = TasksFile({Task({})});
  EXPECT_FALSE(is_fatal(TasksFile({Task({{"num-rep-hist", "0"}})}), kKeys));
  EXPECT_FALSE(is_fatal(good, R"({"keychain-storage": [{"key-id": 1}]})"));
  EXPECT_TRUE(is_fatal(TasksFile({Task({{"scheduler.Start-time", "\"soon\""}})}), kKeys));
  EXPECT_TRUE(is_fatal(TasksFile({Task({{"vrf-instance", "\"..\""}})}), kKeys));
  EXPECT_TRUE(is_fatal("nonsense", kKeys));
  EXPECT_TRUE(is_fatal(good, "{}"));
}

TEST(Check, DoesNotMissKeysOfAKeychainThatCannotBeRead) {
  const std::string tasks =
      TasksFile({Task({{"control-phase.authentication",
                        R"({"mode": "keychain", "algorithm": "sha256", "key-id": 2})"}})});
  EXPECT_THAT(Lines(tasks, "nonsense"),
              ElementsAre("KEYS: not valid JSON", "TASKS: 1 task, 1 accepted, 0 faults, 0 warnings",
                          testing::_));
}

TEST(Check, WritesJson) {
  const std::string text = TasksFile({Task({{"num-rep-hist", "0"}})}, "[]");
  const ScratchFile file(text);
  const auto column_behind = [&](const std::string& name) {
    return std::to_string(text.find(name) + name.size() + 1);
  };
  const std::string expected =
      R"({"tasks":{"file":")" + file.Name() +
      R"(","elements":1,"accepted":0,"faults":[{"number":1,"id":7,"key":"num-rep-hist","value":"0",)"
      R"("reason":"invalid history count value","expected":"a number from 1 to 255","line":1,"column":)" +
      column_behind("\"num-rep-hist\":") +
      R"(}],)"
      R"("warnings":[{"number":null,"id":null,"key":"cpus","value":"[]",)"
      R"("reason":"names no CPU: the daemon starts no worker threads and runs no test","expected":"",)"
      R"("line":1,"column":)" +
      column_behind("\"cpus\": ") + R"(}],"notes":[]},"keychain":null})";
  EXPECT_EQ(CheckJson(CheckBoth(file.Name(), "")), expected);
}

}  // namespace
}  // namespace ipsla::ctl
