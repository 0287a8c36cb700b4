#include "config/sender_help_funcs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/json_text.h"
#include "config/scratch_file.h"
#include "config/task_json.h"
#include "support/recording_syslog.h"

namespace ipsla {
namespace {

using test::Edit;
using test::ScratchFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::string TaskText(const std::vector<Edit>& edits) {
  return ShortJsonText(test::Edited(test::ValidTask(), edits).get(), std::string::npos);
}

// The ids of a task map.
std::vector<std::int32_t> Ids(const SlaTaskMap& tasks) {
  std::vector<std::int32_t> ids;
  for (const auto& [id, task] : tasks) ids.push_back(id);
  return ids;
}

// What a read gave and wrote to both logs. One task and one CPU are there from before.
struct TasksRead {
  int status = 0;
  std::string fault;
  SlaTaskMap tasks = {{77, SlaTaskConfig{}}};
  std::vector<std::uint8_t> cpus = {9};
  std::vector<std::string> file_log;
  std::vector<std::string> system_log;

  explicit TasksRead(const std::string& filename) {
    test::FreshLogFile(0);
    static_cast<void>(test::TakeSyslog());
    status = ParseTaskConfigs(filename, &tasks, {{1, "one"}}, &cpus, &fault);
    file_log = test::ReadLogFile(0);
    system_log = test::TakeSyslogTexts();
  }
};

TasksRead ReadTasksFile(const std::string& content) {
  const ScratchFile file(content);
  return TasksRead(file.Name());
}

TasksRead ReadTasks(const std::vector<std::string>& tasks, const std::string& more = "") {
  std::string list;
  for (const std::string& task : tasks) list += (list.empty() ? "" : ", ") + task;
  return ReadTasksFile("{\"IP-SLA-tasks\": [" + list + "]" + more + "}");
}

void ExpectBothLogs(const TasksRead& read, const std::vector<std::string>& lines) {
  EXPECT_EQ(read.file_log, lines);
  EXPECT_EQ(read.system_log, lines);
}

TEST(ParseTaskConfigsTest, ReplacesTheTasksByThoseOfTheFile) {
  const TasksRead read = ReadTasks({TaskText({{"sla-id", "30"}}), TaskText({{"sla-id", "2"}})});
  EXPECT_EQ(read.status, 0);
  EXPECT_THAT(Ids(read.tasks), ElementsAre(2, 30));
  EXPECT_EQ(read.tasks.at(30).sla_id, 30);
  ExpectBothLogs(read, {});
}

TEST(ParseTaskConfigsTest, AcceptsAnEmptyList) {
  const TasksRead read = ReadTasks({});
  EXPECT_EQ(read.status, 0);
  EXPECT_THAT(read.tasks, IsEmpty());
  ExpectBothLogs(read, {});
}

TEST(ParseTaskConfigsTest, SkipsAFaultyTaskAndKeepsTheOthers) {
  const TasksRead read = ReadTasks({TaskText({{"sla-id", "1"}}),
                                    TaskText({{"sla-id", "2"}, {"udp-jitter.ttl", "256"}}), "null",
                                    TaskText({{"sla-id", "3"}})});
  EXPECT_EQ(read.status, 0);
  EXPECT_THAT(Ids(read.tasks), ElementsAre(1, 3));
  ExpectBothLogs(read, {"SLA task ID #2 parse skipped: invalid ttl value",
                        "SLA task ID #0 parse skipped: invalid main task configuration"});
}

TEST(ParseTaskConfigsTest, ReportsADuplicateAsTaskZeroAndKeepsTheFirst) {
  const TasksRead read = ReadTasks({TaskText({}), TaskText({{"udp-jitter.ttl", "1"}})});
  EXPECT_EQ(read.status, 0);
  EXPECT_THAT(Ids(read.tasks), ElementsAre(7));
  EXPECT_EQ(read.tasks.at(7).ttl, 64);
  ExpectBothLogs(read, {"SLA task ID #0 parse skipped: duplicate task"});
}

TEST(ParseTaskConfigsTest, ASkippedTaskDoesNotMakeItsSuccessorADuplicate) {
  const TasksRead read = ReadTasks({TaskText({{"udp-jitter.ttl", "256"}}), TaskText({})});
  EXPECT_THAT(Ids(read.tasks), ElementsAre(7));
  EXPECT_THAT(read.file_log, SizeIs(1));
}

TEST(ParseTaskConfigsTest, LetsALaterIdWithTheSameLow16BitsReplaceAnEarlierOne) {
  const TasksRead read =
      ReadTasks({TaskText({}), TaskText({{"sla-id", "65543"}, {"udp-jitter.ttl", "1"}})});
  EXPECT_EQ(read.status, 0);
  EXPECT_THAT(Ids(read.tasks), ElementsAre(7));
  EXPECT_EQ(read.tasks.at(7).ttl, 1);
  ExpectBothLogs(read, {});
}

TEST(ParseTaskConfigsTest, SkipsATaskWithoutAUsableSource) {
  const TasksRead read = ReadTasks({TaskText({{"control-phase.src-address", ""}})});
  EXPECT_EQ(read.status, 0);
  ExpectBothLogs(
      read,
      {"GetIfaceData failed: invalid task config",
       "SLA task ID #7 parse skipped: no control phase source address/interface configuration"});
}

TEST(ParseTaskConfigsTest, TakesTheSourceFromALocalInterface) {
  const TasksRead read = ReadTasks({TaskText({{"vrf-instance", ""},
                                              {"udp-jitter.src-address", ""},
                                              {"udp-jitter.src-interface", "\"lo\""}})});
  ASSERT_THAT(Ids(read.tasks), ElementsAre(7));
  EXPECT_EQ(read.tasks.at(7).measurement.if_name, "lo");
  EXPECT_EQ(read.tasks.at(7).measurement.if_index, 1U);
  EXPECT_EQ(Ipv4ToString(read.tasks.at(7).measurement.src.sin_addr), "127.0.0.1");
}

TEST(ParseTaskConfigsTest, GivesUpTheFileWhenAVrfCannotBeEntered) {
  const std::string unreachable = TaskText({{"sla-id", "2"},
                                            {"vrf-instance", "\"missing\""},
                                            {"control-phase.src-address", ""},
                                            {"control-phase.src-interface", "\"lo\""}});
  const TasksRead read = ReadTasks(
      {TaskText({{"sla-id", "1"}}), unreachable, TaskText({{"sla-id", "3"}})}, ", \"cpus\": [1]");
  EXPECT_EQ(read.status, -1);
  EXPECT_THAT(Ids(read.tasks), ElementsAre(1));
  EXPECT_THAT(read.cpus, ElementsAre(9));
  ASSERT_FALSE(read.file_log.empty());
  EXPECT_EQ(read.file_log.front(),
            "Catch exception SetNetworkNamespacemissingfailed: open() failed: %m");
}

TEST(ParseTaskConfigsTest, AppendsTheCpusCutTo8Bits) {
  EXPECT_THAT(ReadTasks({}, ", \"cpus\": [0, 3, 257, -1, 2.9]").cpus,
              ElementsAre(9, 0, 3, 1, 255, 2));
}

TEST(ParseTaskConfigsTest, TakesACpuThatIsNoNumberAsZero) {
  EXPECT_THAT(ReadTasks({}, ", \"cpus\": [\"3\", true, null, {}, [5]]").cpus,
              ElementsAre(9, 0, 0, 0, 0, 0));
}

TEST(ParseTaskConfigsTest, IgnoresCpusThatAreNoArray) {
  for (const char* cpus :
       {"", ", \"cpus\": 3", ", \"cpus\": {\"a\": 1}", ", \"cpus\": \"0\"", ", \"cpus\": []"}) {
    const TasksRead read = ReadTasks({}, cpus);
    EXPECT_EQ(read.status, 0) << cpus;
    EXPECT_THAT(read.cpus, ElementsAre(9)) << cpus;
  }
}

TEST(ParseTaskConfigsTest, RefusesAnEmptyName) {
  const TasksRead read{""};
  EXPECT_EQ(read.status, -1);
  EXPECT_THAT(read.tasks, IsEmpty());
  ExpectBothLogs(read, {"invalid SLA tasks configuration filename"});
}

TEST(ParseTaskConfigsTest, RefusesAFileThatCannotBeRead) {
  for (const char* name : {"/no/such/file", "/tmp"}) {
    const TasksRead read{name};
    EXPECT_EQ(read.status, -1) << name;
    EXPECT_THAT(read.tasks, IsEmpty()) << name;
    EXPECT_THAT(read.fault, testing::StartsWith(std::string(name) + ": ")) << name;
    ExpectBothLogs(read, {"unable to open configuration file"});
  }
}

TEST(ParseTaskConfigsTest, ShowsWhereTheJsonIsWrong) {
  const TasksRead read = ReadTasksFile(R"({"IP-SLA-tasks": [}, "cpus": [1]})");
  EXPECT_EQ(read.status, -1);
  EXPECT_THAT(read.tasks, IsEmpty());
  EXPECT_THAT(read.cpus, ElementsAre(9));
  ExpectBothLogs(read, {R"(JSON parse error at line: }, "cpus": [1]})"});
}

TEST(ParseTaskConfigsTest, RefusesJsonThatNestsTooDeep) {
  const std::string inner(kMaxJsonDepth, '[');
  const TasksRead read = ReadTasksFile(R"({"IP-SLA-tasks": )" + inner);
  EXPECT_EQ(read.status, -1);
  ExpectBothLogs(read, {"JSON parse error at line: ["});
}

TEST(ParseTaskConfigsTest, RefusesARootWithoutTasks) {
  for (const char* content :
       {"{}", "[]", R"({"IP-SLA-tasks": {}, "cpus": [1]})", R"({"IP-SLA-tasks": "none"})"}) {
    const TasksRead read = ReadTasksFile(content);
    EXPECT_EQ(read.status, -1) << content;
    EXPECT_THAT(read.tasks, IsEmpty()) << content;
    EXPECT_THAT(read.cpus, ElementsAre(9)) << content;
    ExpectBothLogs(read, {"ivalid configuration"});
  }
}

}  // namespace
}  // namespace ipsla
