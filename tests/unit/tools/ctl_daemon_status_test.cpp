#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/daemon_status.h"
#include "support/local_time_zone.h"
#include "tools/ctl_tasks.h"

namespace ipsla::ctl {
namespace {

using test::kNow;
using testing::ElementsAre;

constexpr const char* kLog =
    "14-11-2023 22:13:20: Recive commad SENDER_API_CSLD_PARSE_TASKS_CONFIG\n"
    "14-11-2023 22:13:20: JSON parse error at line: x\n"
    "14-11-2023 22:13:20: ParseTaskConfigs() failed\n"
    "14-11-2023 22:13:21: Recive commad SENDER_API_CSLD_GET_TASK_STATUS\n";

TEST(LastReload, IsTheLatestInTheLog) {
  const test::LocalTimeZone zone("UTC0");
  const auto refused = LastReload(kLog, 0);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->time, 1700000000);
  EXPECT_TRUE(refused->refused);
  const std::string log = std::string(kLog) +
                          "14-11-2023 22:13:30: Recive commad SENDER_API_CSLD_PARSE_TASKS_CONFIG\n"
                          "14-11-2023 22:13:30: List of tasks\n";
  const auto latest = LastReload(log, 0);
  ASSERT_TRUE(latest);
  EXPECT_EQ(latest->time, 1700000010);
  EXPECT_FALSE(latest->refused);
}

TEST(LastReload, IsNoneBeforeTheDaemonsStartOrWithoutATime) {
  const test::LocalTimeZone zone("UTC0");
  EXPECT_TRUE(LastReload(kLog, 1700000000));
  EXPECT_FALSE(LastReload(kLog, 1700000001));
  EXPECT_FALSE(LastReload("", 0));
  EXPECT_FALSE(LastReload("soon: Recive commad SENDER_API_CSLD_PARSE_TASKS_CONFIG\n", 0));
}

DaemonStatus Known() {
  return {.process = client::DaemonProcess{.pid = 12,
                                           .started = kNow - 3700,
                                           .tasks_file = "/etc/tasks.json",
                                           .keychain_file = "/etc/keys.json"},
          .version = "R1.2.3",
          .reload = TasksReload{kNow - 10, true},
          .pids = {12},
          .tasks = TaskCounts{4, 3, 1}};
}

std::vector<std::string> LinesOf(const DaemonStatus& status) {
  std::vector<std::string> lines;
  for (const TableCell& line : DaemonLines(status, kNow)) {
    lines.push_back(line.text);
  }
  return lines;
}

TEST(DaemonStatus, HasItsLines) {
  const test::LocalTimeZone zone("UTC0");
  EXPECT_THAT(
      LinesOf(Known()),
      ElementsAre(
          "daemon: version R1.2.3, pid 12, since 2023-11-14 21:11:54 (1h01m ago)",
          "tasks file: /etc/tasks.json, last reload: 2023-11-14 22:13:24 (10s ago), refused",
          "keychain file: /etc/keys.json", "tasks: configured 4, scheduled 3, failing 1"));
}

TEST(DaemonStatus, SaysWhatIsNotKnown) {
  EXPECT_THAT(LinesOf({.tasks = TaskCounts{.failing = 2}}),
              ElementsAre("daemon: version unknown, pid unknown, since unknown",
                          "tasks file: unknown, last reload: unknown", "keychain file: unknown",
                          "tasks: configured unknown, scheduled unknown, failing 2"));
}

TEST(DaemonStatus, SaysThatTheLogHasNoReload) {
  EXPECT_EQ(LinesOf({.log_read = true})[1], "tasks file: unknown, last reload: none in the log");
}

TEST(DaemonStatus, WarnsOfASecondDaemon) {
  DaemonStatus status = Known();
  status.pids = {12, 34};
  EXPECT_THAT(LinesOf(status).back(),
              testing::StartsWith("warning: 2 daemons run here, pid 12 34: "));
  status.may_be_elsewhere = true;
  EXPECT_THAT(LinesOf(status).back(), testing::StartsWith("warning: 2 daemons run, pid 12 34: "));
}

TEST(DaemonStatus, IsAnObject) {
  const auto text = [](const DaemonStatus& status) {
    return std::string(JsonText(cJSON_PrintUnformatted(DaemonObject(status).get())).get());
  };
  EXPECT_EQ(text(Known()),
            R"({"version":"R1.2.3","pid":12,"started":1699996314,"tasks-file":"/etc/tasks.json",)"
            R"("keychain-file":"/etc/keys.json","last-reload":1700000004,)"
            R"("last-reload-refused":true,"configured":4,"scheduled":3,"failing":1,"pids":[12]})");
  EXPECT_EQ(text({}),
            R"({"version":null,"pid":null,"started":null,"tasks-file":null,"keychain-file":null,)"
            R"("last-reload":null,"last-reload-refused":null,"configured":null,"scheduled":null,)"
            R"("failing":null,"pids":[]})");
}

}  // namespace
}  // namespace ipsla::ctl
