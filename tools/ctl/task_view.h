// A task as ctl shows it: cells, rows and lines of what the client library knows of it. Pure.

#ifndef IPSLA_TOOLS_CTL_TASK_VIEW_H_
#define IPSLA_TOOLS_CTL_TASK_VIEW_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/clock_state.h"
#include "client/task_view.h"
#include "ctl/text_table.h"

namespace ipsla::ctl {

/// What the client library calls so.
using client::Figures;
using client::TaskFigures;
using client::TaskView;

/// How a result is judged.
struct TaskRules {
  std::int64_t now = 0;                     ///< seconds since the epoch
  std::optional<std::int64_t> max_age_s{};  ///< results older than this are stale
  bool stale_fails = false;                 ///< a stale result counts as failing
};

/// A failed run, or a stale result where that counts.
[[nodiscard]] bool CountsAsFailing(const TaskView& task, const TaskRules& rules);

/// "udp-jitter"; kNoValue for a type that is not known.
[[nodiscard]] std::string TypeText(SlaTestType type);

/// "ok", "stale", "FAIL", "undefined", "not run" or, for a task without a schedule, "off".
[[nodiscard]] TableCell ResultCell(const TaskView& task, const TaskRules& rules);

/// How long ago the last run ended.
[[nodiscard]] TableCell AgeCell(const TaskView& task, const TaskRules& rules);

/// What stands below the row of a task: why its last run failed or has no figures, and why its
/// result is stale.
[[nodiscard]] std::vector<TableCell> TaskNotes(const TaskView& task, const TaskRules& rules);

/// The table of `show` and `watch`: one row per task, in the order given. At 80 columns all but the
/// columns of counts and of loss and jitter per direction have room.
[[nodiscard]] TextTable TaskTable(const std::vector<TaskView>& tasks, const TaskRules& rules);

/// Adds to each failing row what to do about it ("hint: ..."), once for each reason. REQUIRES:
/// `table` is the TaskTable of these tasks.
void AddHints(const std::vector<TaskView>& tasks, TextTable* table);

/// Position of the age in that table: the one column that changes without anything having happened.
inline constexpr std::size_t kAgeColumn = 5;

/// What has to be said of the one-way values among these: the machine's clock is not synchronised.
/// Empty when it is, when that is not known, or when there are none.
[[nodiscard]] std::string ClockRemark(const std::vector<TaskView>& tasks,
                                      const client::ClockState& clock);

/// Every value of one task, as lines; none wider than `layout`.
[[nodiscard]] std::vector<std::string> TaskDetails(const TaskView& task, const TaskRules& rules,
                                                   const client::ClockState& clock,
                                                   const TableLayout& layout);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TASK_VIEW_H_
