#include <algorithm>
#include <ctime>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "ctl/commands.h"
#include "ctl/json_out.h"
#include "ctl/terminal.h"

namespace ipsla::ctl {
namespace {

using client::SenderClient;
using client::StatisticsMap;
using client::StatusMap;

TaskView ViewOf(std::int32_t id, bool scheduled, const StatisticsMap& results) {
  TaskView view{.id = id, .scheduled = scheduled};
  if (const auto result = results.find(id); result != results.end()) {
    view.last = result->second;
  }
  return view;
}

std::set<std::int32_t> Ids(const StatusMap& tasks) {
  std::set<std::int32_t> ids;
  for (const auto& [id, scheduled] : tasks) {
    ids.insert(ids.end(), id);
  }
  return ids;
}

void PrintDetails(const Collected& collected) {
  const std::int64_t now = Now();
  const bool colour = StandardOutput().colour;
  for (std::size_t index = 0; index < collected.tasks.size(); ++index) {
    if (index > 0) {
      fmt::print("\n");
    }
    for (const std::string& line : TaskDetails(collected.tasks[index], now, colour)) {
      fmt::print("{}\n", line);
    }
  }
}

void PrintTable(const Collected& collected) {
  for (const std::string& line :
       RenderTable(TaskTable(collected.tasks, Now()), StandardOutput().Layout())) {
    fmt::print("{}\n", line);
  }
}

}  // namespace

bool Collected::AnyFailed() const {
  return std::any_of(tasks.begin(), tasks.end(),
                     [](const TaskView& task) { return task.Failed(); });
}

std::int64_t Now() {
  return static_cast<std::int64_t>(std::time(nullptr));
}

Collected Collect(const SenderClient& sender, const Selection& selection,
                  const std::set<std::string>& groups) {
  Collected collected;
  if (selection.ids.empty() && !selection.all) {
    for (const auto& [id, result] : sender.ActiveStatistics(groups)) {
      collected.tasks.push_back({.id = id, .last = result});
    }
    return collected;
  }
  const StatusMap configured =
      sender.Statuses(selection.all ? client::AllTaskIds() : selection.ids);
  const StatisticsMap results = sender.Statistics(Ids(configured), groups);
  for (const auto& [id, scheduled] : configured) {
    collected.tasks.push_back(ViewOf(id, scheduled, results));
  }
  for (const std::int32_t id : selection.ids) {
    if (!configured.contains(id)) {
      collected.unknown.push_back(id);
    }
  }
  return collected;
}

std::string CollectedJson(const Collected& collected) {
  const JsonDocument document(cJSON_CreateObject());
  cJSON* tasks = cJSON_AddArrayToObject(document.get(), "tasks");
  for (const TaskView& task : collected.tasks) {
    if (task.last) {
      cJSON_AddItemToArray(tasks, cJSON_Parse(task.last->json.c_str()));
      continue;
    }
    JsonDocument object(cJSON_CreateObject());
    cJSON_AddNumberToObject(object.get(), "sla-id", task.id);
    cJSON_AddBoolToObject(object.get(), "schedule", static_cast<cJSON_bool>(task.scheduled));
    cJSON_AddStringToObject(object.get(), "status", "not run");
    cJSON_AddItemToArray(tasks, object.release());
  }
  if (!collected.unknown.empty()) {
    AddIds(document.get(), "unknown", collected.unknown);
  }
  return CompactJson(document.get());
}

void ReportUnknown(const Collected& collected) {
  for (const std::int32_t id : collected.unknown) {
    fmt::print(stderr, "ip-sla-ctl: no task {} is configured\n", id);
  }
}

int CollectedStatus(const Collected& collected) {
  if (!collected.unknown.empty()) {
    return kExitUsage;
  }
  return collected.AnyFailed() ? kExitFailing : kExitFine;
}

int RunShow(const CommonOptions& common, const ShowOptions& options) {
  const SenderClient sender(common.client);
  const Collected collected = Collect(sender, options.selection, MetricGroupNames());
  if (common.json) {
    fmt::print("{}\n", CollectedJson(collected));
  } else if (collected.tasks.empty()) {
    if (collected.unknown.empty()) {
      fmt::print("{}\n",
                 options.selection.all ? "no task is configured" : "no task has a result yet");
    }
  } else if (options.metrics) {
    PrintDetails(collected);
  } else {
    PrintTable(collected);
  }
  ReportUnknown(collected);
  return CollectedStatus(collected);
}

}  // namespace ipsla::ctl
