// What the tasks file says of each task that the Sender API does not: its period and life, and who
// it would measure if it has not run yet. Pure: text in, values out.

#ifndef IPSLA_TOOLS_CLIENT_TASK_PLAN_H_
#define IPSLA_TOOLS_CLIENT_TASK_PLAN_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "config/task_config.h"

namespace ipsla::client {

/// One task as the file has it. The daemon may have read an older file.
struct TaskPlan {
  SlaTestType type = SlaTestType::kNone;
  std::string vrf{};  ///< empty: none
  std::string src_address{}, dst_address{}, interface {};
  std::optional<std::int64_t> dscp{};
  std::int64_t period_s = 0;  ///< from the start of one run to the start of the next; 0: not given
  std::optional<std::int64_t> life_s{};  ///< seconds from its first start; none: for ever
};

/// By task id.
using TaskPlans = std::map<std::int32_t, TaskPlan>;

/// Reads the text of a tasks file. Lenient: judges nothing, takes what is there; of tasks with one
/// id the first. Which of them the daemon has, it must be asked. Nothing when the text is no tasks
/// file. Threads: as every parser of JSON, one at a time in a process.
[[nodiscard]] std::optional<TaskPlans> ReadTaskPlans(std::string_view text);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_TASK_PLAN_H_
