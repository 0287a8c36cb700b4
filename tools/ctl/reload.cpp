#include "ctl/reload.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "ctl/json_out.h"

namespace ipsla::ctl {
namespace {

using client::StatisticsMap;
using client::TaskStatistics;

std::int64_t Runs(const TaskStatistics& task) {
  return task.successful_count + task.failed_count;
}

bool Restarted(const TaskStatistics& before, const TaskStatistics& after) {
  const bool reconfigured = before.type != after.type || before.vrf != after.vrf ||
                            before.dst_address != after.dst_address ||
                            before.src_address != after.src_address ||
                            before.interface != after.interface;
  // A task that went on has more runs than before, or as many and the same last one.
  const bool other_run = before.json != after.json;
  return reconfigured || Runs(after) < Runs(before) || (other_run && Runs(after) == Runs(before));
}

bool Restarted(std::int32_t id, const StatisticsMap& before, const StatisticsMap& after) {
  const auto old_result = before.find(id);
  const auto new_result = after.find(id);
  if (old_result == before.end()) {
    return false;
  }
  return new_result == after.end() || Restarted(old_result->second, new_result->second);
}

std::string ListLine(const char* label, const std::vector<std::int32_t>& ids) {
  return fmt::format("{:<11}{}", label, fmt::join(ids, " "));
}

}  // namespace

ReloadChanges CompareSnapshots(const TaskSnapshot& before, const TaskSnapshot& after) {
  ReloadChanges changes;
  for (const auto& [id, scheduled] : before.configured) {
    if (!after.configured.contains(id)) {
      changes.removed.push_back(id);
    }
  }
  for (const auto& [id, scheduled] : after.configured) {
    const auto old_task = before.configured.find(id);
    if (old_task == before.configured.end()) {
      changes.added.push_back(id);
    } else if (old_task->second != scheduled || Restarted(id, before.results, after.results)) {
      changes.changed.push_back(id);
    } else {
      changes.unchanged.push_back(id);
    }
  }
  return changes;
}

std::vector<std::string> ReloadLines(const ReloadChanges& changes) {
  std::vector<std::string> lines{
      fmt::format("tasks reloaded: {} added, {} removed, {} changed, {} unchanged, {} skipped",
                  changes.added.size(), changes.removed.size(), changes.changed.size(),
                  changes.unchanged.size(), changes.skipped.size())};
  if (!changes.added.empty()) {
    lines.push_back(ListLine("added:", changes.added));
  }
  if (!changes.removed.empty()) {
    lines.push_back(ListLine("removed:", changes.removed));
  }
  if (!changes.changed.empty()) {
    lines.push_back(ListLine("changed:", changes.changed));
  }
  for (std::string& line : SkippedLines(changes.skipped, "task")) {
    lines.push_back(std::move(line));
  }
  return lines;
}

std::vector<std::string> SkippedLines(const std::vector<SkippedElement>& skipped,
                                      const char* noun) {
  std::vector<std::string> lines;
  for (const SkippedElement& element : skipped) {
    const std::string id = element.id ? fmt::format(" (id {})", *element.id) : "";
    lines.push_back(
        fmt::format("{:<11}{} {}{}: {}", "skipped:", noun, element.number, id, element.reason));
  }
  return lines;
}

void AddSkipped(cJSON* object, const std::vector<SkippedElement>& skipped) {
  cJSON* array = cJSON_AddArrayToObject(object, "skipped");
  for (const SkippedElement& element : skipped) {
    cJSON* entry = cJSON_CreateObject();
    cJSON_AddNumberToObject(entry, "number", static_cast<double>(element.number));
    cJSON_AddItemToObject(entry, "id",
                          element.id ? cJSON_CreateNumber(*element.id) : cJSON_CreateNull());
    cJSON_AddStringToObject(entry, "reason", element.reason.c_str());
    cJSON_AddItemToArray(array, entry);
  }
}

std::string ReloadJson(const ReloadChanges& changes) {
  const JsonDocument document(cJSON_CreateObject());
  cJSON_AddStringToObject(document.get(), "reloaded", "tasks");
  AddIds(document.get(), "added", changes.added);
  AddIds(document.get(), "removed", changes.removed);
  AddIds(document.get(), "changed", changes.changed);
  AddIds(document.get(), "unchanged", changes.unchanged);
  AddSkipped(document.get(), changes.skipped);
  return CompactJson(document.get());
}

}  // namespace ipsla::ctl
