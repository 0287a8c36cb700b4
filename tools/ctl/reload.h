// What a reload of the tasks file did, seen from outside. Pure.

#ifndef IPSLA_TOOLS_CTL_RELOAD_H_
#define IPSLA_TOOLS_CTL_RELOAD_H_

#include <cstdint>
#include <string>
#include <vector>

#include "client/task_results.h"

namespace ipsla::ctl {

/// The daemon's tasks at one moment.
struct TaskSnapshot {
  client::StatusMap configured;
  client::StatisticsMap results;
};

struct ReloadChanges {
  std::vector<std::int32_t> added, removed, restarted, unchanged;  ///< task ids, ascending
};

/// Compares. A changed task starts afresh with empty statistics, which is how it is seen; one that
/// had no result before counts as unchanged unless its configuration shows.
[[nodiscard]] ReloadChanges CompareSnapshots(const TaskSnapshot& before, const TaskSnapshot& after);

/// For people, as lines.
[[nodiscard]] std::vector<std::string> ReloadLines(const ReloadChanges& changes);

/// {"reloaded": "tasks", "added": [...], "removed": [...], "restarted": [...], "unchanged": [...]}
[[nodiscard]] std::string ReloadJson(const ReloadChanges& changes);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_RELOAD_H_
