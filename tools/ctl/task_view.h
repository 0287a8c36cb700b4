// A task as ctl shows it: which values mean something for its type and result. Pure.

#ifndef IPSLA_TOOLS_CTL_TASK_VIEW_H_
#define IPSLA_TOOLS_CTL_TASK_VIEW_H_

#include <cstdint>
#include <string>
#include <vector>

#include "client/task_view.h"
#include "ctl/text_table.h"

namespace ipsla::ctl {

using client::Figures;
using client::TaskFigures;
using client::TaskView;

/// "udp-jitter"; kNoValue for a task that is not configured.
[[nodiscard]] std::string TypeText(const client::TaskStatistics& task);

/// "ok", "FAIL", "undefined", "not run" or, for a task without a schedule, "off".
[[nodiscard]] TableCell ResultCell(const TaskView& task);

/// Why the last run failed, or kNoValue.
[[nodiscard]] TableCell ErrorCell(const TaskView& task);

/// How long ago the last run ended; `now` in seconds since the epoch.
[[nodiscard]] TableCell AgeCell(const TaskView& task, std::int64_t now);

/// The table of `show`: one row per task.
[[nodiscard]] TextTable TaskTable(const std::vector<TaskView>& tasks, std::int64_t now);

/// Position of the age in that table: the one column that changes without anything having happened.
inline constexpr std::size_t kAgeColumn = 5;

/// Every value of one task, as lines.
[[nodiscard]] std::vector<std::string> TaskDetails(const TaskView& task, std::int64_t now,
                                                   bool colour);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TASK_VIEW_H_
