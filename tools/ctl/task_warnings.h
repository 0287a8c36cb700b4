// Tasks that the parser accepts and that cannot work all the same. Pure.

#ifndef IPSLA_TOOLS_CTL_TASK_WARNINGS_H_
#define IPSLA_TOOLS_CTL_TASK_WARNINGS_H_

#include <cstdint>
#include <ctime>
#include <vector>

#include "config/keychain.h"
#include "config/task_config.h"
#include "config/task_parser.h"

struct cJSON;

namespace ipsla::ctl {

/// Longest time in milliseconds from the start of a run that loses packets to its end: the control
/// phase's timeout (UDP types), then the measurement's timer.
[[nodiscard]] std::int64_t LongestRunMs(const SlaTaskConfig& task);

/// What is wrong with an accepted task, in the order of its keys. `element` is its JSON object
/// (numbers there are not cut yet), `keychain` the keys or null, `now` the moment at which the
/// daemon would start. The value of each is the JSON text of the key, as in a TaskFault.
[[nodiscard]] std::vector<TaskFault> TaskWarnings(const cJSON* element, const SlaTaskConfig& task,
                                                  const KeychainStorage* keychain,
                                                  const timespec& now);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TASK_WARNINGS_H_
