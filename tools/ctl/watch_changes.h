// What changed between two refreshes of `watch`. Pure.

#ifndef IPSLA_TOOLS_CTL_WATCH_CHANGES_H_
#define IPSLA_TOOLS_CTL_WATCH_CHANGES_H_

#include <string>
#include <vector>

#include "ctl/task_view.h"

namespace ipsla::ctl {

/// Marks the cells of `current` (a TaskTable) whose text differs from the same task's in
/// `previous`; of a task that is new, its id. The age changes all the time and is never marked.
void MarkChanges(const TextTable& previous, TextTable* current);

/// One line for each task that has a new result, is new or is gone; with no previous tasks, for
/// every task. A result that differs from the one before is marked with "*". `rules.now` is shown
/// as local time.
[[nodiscard]] std::vector<std::string> ChangeLines(const std::vector<TaskView>& previous,
                                                   const std::vector<TaskView>& current,
                                                   const TaskRules& rules);

/// `current` without results whose values were not asked for yet: such a task is as in `previous`,
/// and left out where it is not there.
[[nodiscard]] std::vector<TaskView> WithKnownValues(const std::vector<TaskView>& previous,
                                                    std::vector<TaskView> current);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_WATCH_CHANGES_H_
