// One task object of the tasks file as a record or a reason: the parser's rules without its file and its log.

#ifndef IPSLA_CONFIG_TASK_PARSER_H_
#define IPSLA_CONFIG_TASK_PARSER_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "config/keychain.h"
#include "config/task_config.h"
#include "env/environment.h"

struct cJSON;

namespace ipsla {

/// Looks up the "src-interface" of a phase object: GetIfaceData in the daemon, a substitute in tests and checkers.
using InterfaceLookup =
    std::function<InterfaceAddress(const std::string& vrf, const cJSON* phase, std::int32_t* status)>;

/// Outcome of ParseTask: exactly one of accepted (no fault, not abandoned), a fault, or abandoned.
struct TaskParse {
  SlaTaskConfig config;              ///< as far as it was filled when a fault was found
  std::optional<std::string> fault;  ///< the reason of the first failed check
  bool abandoned = false;            ///< the interface lookup reported an environment failure: give up the whole file

  [[nodiscard]] bool Accepted() const { return !fault && !abandoned; }
};

/// Checks one element of "IP-SLA-tasks" against the rules, in their order. `accepted` holds the tasks accepted so far
/// (for duplicates), `keychain` the keys. The fault's id is config.sla_id: 0 until the third check has passed,
/// deliberately. Logs nothing itself except a failed inet_pton(3).
[[nodiscard]] TaskParse ParseTask(const cJSON* element, const SlaTaskMap& accepted, const KeychainStorage& keychain,
                                  const InterfaceLookup& lookup);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_TASK_PARSER_H_
