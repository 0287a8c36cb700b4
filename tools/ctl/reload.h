// What a reload of the tasks file did, seen from outside. Pure.

#ifndef IPSLA_TOOLS_CTL_RELOAD_H_
#define IPSLA_TOOLS_CTL_RELOAD_H_

#include <cstdint>
#include <string>
#include <vector>

#include "client/task_results.h"
#include "ctl/reload_check.h"

struct cJSON;

namespace ipsla::ctl {

/// The daemon's tasks at one moment.
struct TaskSnapshot {
  client::StatusMap configured;
  client::StatisticsMap results;
};

/// What a reload will do, by task id.
struct ReloadChanges {
  std::vector<std::int32_t> added, removed, changed, unchanged;  ///< task ids, ascending
  std::vector<SkippedElement> skipped{};                         ///< of the file
};

/// Compares. The daemon drops the statistics of a task that it changes: that is what shows here, of
/// tasks that had a result; of others only the configuration can.
[[nodiscard]] ReloadChanges CompareSnapshots(const TaskSnapshot& before, const TaskSnapshot& after);

/// For people, as lines.
[[nodiscard]] std::vector<std::string> ReloadLines(const ReloadChanges& changes);

/// {"reloaded": "tasks", "added": [...], "removed": [...], "changed": [...], "unchanged": [...],
/// "skipped": [{"number", "id" or null, "reason"}...]}
[[nodiscard]] std::string ReloadJson(const ReloadChanges& changes);

/// The lines about skipped elements, and their JSON as member "skipped" of an object.
[[nodiscard]] std::vector<std::string> SkippedLines(const std::vector<SkippedElement>& skipped,
                                                    const char* noun);
void AddSkipped(cJSON* object, const std::vector<SkippedElement>& skipped);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_RELOAD_H_
