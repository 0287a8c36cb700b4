// One task object of the tasks file as a record or a reason: the parser's rules without its file
// and its log.
//
// There is one set of rules with two users. The daemon (ParseTask) stops at the first fault, so
// that nothing behind it is looked at, and the system is not asked about a task that is skipped
// anyway. A checker (CheckTask) goes on behind a fault wherever the rest can still be judged. The
// first fault that CheckTask names is the one ParseTask stops at.

#ifndef IPSLA_CONFIG_TASK_PARSER_H_
#define IPSLA_CONFIG_TASK_PARSER_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "config/keychain_rules.h"
#include "config/task_config.h"
#include "env/interface_lookup.h"

struct cJSON;

namespace ipsla {

/// Reasons that are about more than one value.
inline constexpr const char* kDuplicateTask = "duplicate task";
inline constexpr const char* kUnknownKeyId = "invalid control phase authentication secret key id";
inline constexpr const char* kOverBudget = "invalid scheduled time";

/// Upper bounds of ranges; the lower one is 0.
inline constexpr std::int32_t kMaxPort = 65535;
inline constexpr std::int32_t kMaxTtl = 255;
inline constexpr std::int32_t kMaxDscp = 63;

/// Looks up the interface that a phase names as "src-interface" (empty when it names none):
/// GetIfaceData in the daemon, a substitute in tests and checkers.
using InterfaceLookup = std::function<InterfaceAddress(
    const std::string& vrf, const std::string& name, std::int32_t* status)>;

/// An InterfaceLookup that needs no privileges and asks the system nothing: the name as configured
/// with index 0 and address 0.0.0.0, or status kInterfaceNotConfigured by the same rule as
/// GetIfaceData. Logs nothing.
[[nodiscard]] InterfaceAddress ConfiguredInterface(const std::string& vrf, const std::string& name,
                                                   std::int32_t* status);

/// One failed check.
struct TaskFault {
  std::string key;     ///< where: names joined by dots, as in "control-phase.authentication.mode"
  std::string value;   ///< the value there as JSON text, shortened when it is long; empty when the
                       ///< key is absent
  std::string reason;  ///< the exact text that the daemon logs
  bool operator==(const TaskFault&) const = default;
};

/// Outcome of ParseTask: exactly one of accepted (no fault, not abandoned), a fault, or abandoned.
struct TaskParse {
  SlaTaskConfig config;              ///< as far as it was filled when a fault was found
  std::optional<std::string> fault;  ///< the reason of the first failed check
  /// To be logged before the fault: what inet_pton(3) said when it failed itself.
  std::optional<std::string> conversion_failure;
  /// The interface lookup reported an environment failure: give up the whole file.
  bool abandoned = false;

  [[nodiscard]] bool Accepted() const { return !fault && !abandoned; }
};

/// Checks one element of "IP-SLA-tasks" against the rules, in their order. `accepted` holds the
/// tasks accepted so far (for duplicates), `keychain` the keys. The fault's id is config.sla_id: 0
/// until the third check has passed (kept-behaviours.md#early-faults-are-reported-with-id-0). Logs
/// nothing.
[[nodiscard]] TaskParse ParseTask(const cJSON* element, const SlaTaskMap& accepted,
                                  const KeychainStorage& keychain, const InterfaceLookup& lookup);

/// Outcome of CheckTask.
struct TaskCheck {
  SlaTaskConfig config;           ///< complete when there is no fault; otherwise what could be read
  std::vector<TaskFault> faults;  ///< in the order of the rules
  std::optional<std::string> conversion_failure;  ///< as in TaskParse
  bool abandoned = false;                         ///< as in TaskParse
};

/// As ParseTask, but names every fault. Behind a fault it skips only what depends on it: the
/// members of a missing object, the run-time budget when one of its numbers is missing. Without a
/// keychain (null) key ids are only checked to be numbers. To check a whole file: ReadConfigFile
/// (config_file.h), then this for each element, storing each task without fault as
/// accepted[config.sla_id] before the next.
[[nodiscard]] TaskCheck CheckTask(const cJSON* element, const SlaTaskMap& accepted,
                                  const KeychainStorage* keychain, const InterfaceLookup& lookup);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_TASK_PARSER_H_
