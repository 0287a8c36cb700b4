#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "ctl/commands.h"
#include "ctl/json_out.h"
#include "ctl/terminal.h"

namespace ipsla::ctl {
namespace {

TextTable StatusTable(const Collected& collected) {
  TextTable table;
  table.columns = {{"ID", true}, {"SCHEDULED"}, {"RESULT"}, {"AGE", true}, {"ERROR"}};
  const std::int64_t now = Now();
  for (const TaskView& task : collected.tasks) {
    table.rows.push_back({{std::to_string(task.id)},
                          {task.scheduled ? "yes" : "no"},
                          ResultCell(task),
                          AgeCell(task, now),
                          ErrorCell(task)});
  }
  return table;
}

/// The daemon's {"sla-id", "status": schedule flag} and what the last run came to.
std::string StatusJson(const Collected& collected) {
  const JsonDocument document(cJSON_CreateObject());
  cJSON* tasks = cJSON_AddArrayToObject(document.get(), "tasks");
  for (const TaskView& task : collected.tasks) {
    JsonDocument object(cJSON_CreateObject());
    cJSON_AddNumberToObject(object.get(), "sla-id", task.id);
    cJSON_AddBoolToObject(object.get(), "status", static_cast<cJSON_bool>(task.scheduled));
    cJSON_AddStringToObject(object.get(), "result",
                            task.last ? task.last->status.c_str() : "not run");
    cJSON_AddItemToArray(tasks, object.release());
  }
  if (!collected.unknown.empty()) {
    AddIds(document.get(), "unknown", collected.unknown);
  }
  return CompactJson(document.get());
}

}  // namespace

int RunStatus(const CommonOptions& common, const std::set<std::int32_t>& ids) {
  const client::SenderClient sender(common.client);
  const Collected collected = Collect(sender, {.ids = ids, .all = ids.empty()}, {});
  if (common.json) {
    fmt::print("{}\n", StatusJson(collected));
  } else if (!collected.tasks.empty()) {
    for (const std::string& line : RenderTable(StatusTable(collected), StandardOutput().Layout())) {
      fmt::print("{}\n", line);
    }
  } else if (collected.unknown.empty()) {
    fmt::print("no task is configured\n");
  }
  ReportUnknown(collected);
  return CollectedStatus(collected);
}

}  // namespace ipsla::ctl
