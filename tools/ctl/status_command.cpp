#include <algorithm>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "client/daemon_version.h"
#include "client/file_text.h"
#include "ctl/commands.h"
#include "ctl/daemon_status.h"
#include "ctl/display_text.h"
#include "ctl/json_out.h"
#include "ctl/terminal.h"

namespace ipsla::ctl {
namespace {

constexpr const char* kDaemonLog = "/var/log/ip-sla/sender.log";
/// The daemon cuts the file at 1 MiB.
constexpr std::size_t kMaxLogBytes = std::size_t{2} << 20;

TextTable StatusTable(const std::vector<TaskView>& tasks, const TaskRules& rules) {
  TextTable table;
  table.columns = {{.header = "ID", .right_aligned = true},
                   {.header = "TYPE", .rank = 5},
                   {.header = "SCHEDULED", .rank = 4},
                   {.header = "RESULT", .rank = 2},
                   {.header = "AGE", .right_aligned = true, .rank = 3}};
  for (const TaskView& task : tasks) {
    table.rows.push_back({{{std::to_string(task.id)},
                           {TypeText(task.Type())},
                           {task.scheduled ? "yes" : "no"},
                           ResultCell(task, rules),
                           AgeCell(task, rules)},
                          TaskNotes(task, rules)});
  }
  return table;
}

TaskCounts CountsOf(const TaskSource& source, const std::vector<TaskView>& tasks) {
  const auto count = [&tasks](auto counts) {
    return static_cast<std::size_t>(std::count_if(tasks.begin(), tasks.end(), counts));
  };
  TaskCounts counts{.failing = count([](const TaskView& task) { return task.Failed(); })};
  if (source.HasPlans() || source.Selection().scan) {
    counts.configured = tasks.size();
    counts.scheduled = count([](const TaskView& task) { return task.scheduled; });
  }
  return counts;
}

DaemonStatus StatusOf(const TaskSource& source, const std::vector<TaskView>& tasks) {
  DaemonStatus status;
  const client::DaemonProcess* answering = client::AnsweringDaemon(source.Daemons());
  if (answering != nullptr) {
    status.process = *answering;
    status.version = client::VersionOf(*answering);
    // Its start is rounded, and the log has whole seconds.
    const std::int64_t since = answering->started.value_or(0) - 1;
    const auto log = client::ReadFileEnd(answering->Reachable(kDaemonLog), kMaxLogBytes);
    status.log_read = log.has_value();
    status.reload = log ? LastReload(*log, since) : std::nullopt;
  }
  for (const client::DaemonProcess& daemon : source.Daemons()) {
    status.pids.push_back(daemon.pid);
    status.may_be_elsewhere = status.may_be_elsewhere || !daemon.has_port;
  }
  if (source.Selection().ids.empty()) {
    status.tasks = CountsOf(source, tasks);
  }
  return status;
}

/// The daemon's {"sla-id", "status": schedule flag} and what the last run came to.
std::string StatusJson(const DaemonStatus& status, const client::TaskAnswer& answer) {
  const JsonDocument document(cJSON_CreateObject());
  cJSON_AddItemToObject(document.get(), "daemon", DaemonObject(status).release());
  cJSON* tasks = cJSON_AddArrayToObject(document.get(), "tasks");
  for (const TaskView& task : answer.tasks) {
    JsonDocument object(cJSON_CreateObject());
    cJSON_AddNumberToObject(object.get(), "sla-id", task.id);
    cJSON_AddBoolToObject(object.get(), "status", static_cast<cJSON_bool>(task.scheduled));
    cJSON_AddStringToObject(object.get(), "result",
                            task.last ? task.last->status.c_str() : "not run");
    cJSON_AddItemToArray(tasks, object.release());
  }
  if (!answer.unknown.empty()) {
    AddIds(document.get(), "unknown", answer.unknown);
  }
  return CompactJson(document.get());
}

void PrintStatus(const DaemonStatus& status, const std::vector<TaskView>& tasks) {
  const TaskRules rules{.now = Now()};
  const TableLayout layout = StandardOutput().Layout();
  for (const TableCell& line : DaemonLines(status, rules.now)) {
    for (const std::string& part : WrapText(line.text, layout.width)) {
      fmt::print("{}\n", Styled(part, line.style, layout.colour));
    }
  }
  if (tasks.empty()) {
    return;
  }
  fmt::print("\n");
  for (const std::string& line : RenderTable(StatusTable(tasks, rules), layout)) {
    fmt::print("{}\n", line);
  }
}

}  // namespace

int RunStatus(const CommonOptions& common, const TaskChoice& choice) {
  const TaskSource source(common.client, choice);
  const client::TaskAnswer answer = source.Query({});
  const DaemonStatus status = StatusOf(source, answer.tasks);
  if (common.json) {
    fmt::print("{}\n", StatusJson(status, answer));
  } else {
    PrintStatus(status, answer.tasks);
  }
  source.WarnOfHiddenTasks();
  ReportUnknown(answer.unknown);
  return AnswerStatus(answer, {});
}

}  // namespace ipsla::ctl
