// In which order tasks are shown. Pure.

#ifndef IPSLA_TOOLS_CTL_TASK_ORDER_H_
#define IPSLA_TOOLS_CTL_TASK_ORDER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/task_view.h"

namespace ipsla::ctl {

/// What tasks can be sorted by.
enum class SortKey : std::uint8_t {
  kFailing,  ///< failing tasks first
  kId,
  kAge,   ///< oldest result first
  kRtt,   ///< longest round trip first
  kLoss,  ///< most lost probes first
};

/// Words for the command line, in the order of the keys.
[[nodiscard]] const std::vector<std::string>& SortKeyNames();

/// REQUIRES: `name` is empty or one of SortKeyNames(). Empty: failing tasks first for people, by id
/// for programs.
[[nodiscard]] SortKey SortKeyOf(const std::string& name, bool for_program);

/// Sorts; tasks that the key does not tell apart by id, those without its value behind the others.
void SortTasks(SortKey key, const TaskRules& rules, std::vector<TaskView>* tasks);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TASK_ORDER_H_
