// Tasks that the parser accepts and that cannot work all the same, or that end the daemon.

#ifndef IPSLA_TOOLS_CTL_TASK_WARNINGS_H_
#define IPSLA_TOOLS_CTL_TASK_WARNINGS_H_

#include <cstdint>
#include <ctime>
#include <vector>

#include "config/keychain_rules.h"
#include "config/task_config.h"
#include "ctl/host_view.h"
#include "ctl/remark.h"

struct cJSON;

namespace ipsla::ctl {

/// Most probes of a run whose records the daemon surely finds memory for; above the first figure
/// they take a hundred megabytes and more.
inline constexpr std::int32_t kManyProbes = 1000000;
inline constexpr std::int32_t kMaxProbes = 10000000;

/// Longest time in milliseconds from the start of a run that loses packets to its end: the control
/// phase's timeout (UDP types), then the measurement's timer.
[[nodiscard]] std::int64_t LongestRunMs(const SlaTaskConfig& task);

/// True for the types without a control phase.
[[nodiscard]] bool IsIcmp(SlaTestType type);

/// What a task is held against beside itself.
struct TaskSurroundings {
  const KeychainStorage* keychain = nullptr;  ///< the keys; null: not known
  timespec now{};                             ///< the moment at which the daemon would start
  HostView* host = nullptr;                   ///< the machine; null: it is left out
};

/// What is wrong with an accepted task, in the order of its keys. `element` is its JSON object
/// (numbers there are not cut yet). The value of each is the JSON text of the key, as in a
/// TaskFault. A fault among them ends the daemon.
[[nodiscard]] std::vector<Remark> InspectTask(const cJSON* element, const SlaTaskConfig& task,
                                              const TaskSurroundings& around);

// Its parts. Each adds what it finds.

/// "Start-time" and "life-time".
void InspectSchedule(const SlaSchedulerConfig& scheduler, const timespec& now,
                     TaskRemarks* remarks);
/// The VRF, and how the daemon comes back from it.
void InspectVrf(const SlaTaskConfig& task, HostView* host, TaskRemarks* remarks);
/// Source and destination of the phase whose object has the key `phase`, as far as it is used.
void InspectEndpoint(const SlaTaskConfig& task, const std::string& phase, HostView* host,
                     TaskRemarks* remarks);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TASK_WARNINGS_H_
