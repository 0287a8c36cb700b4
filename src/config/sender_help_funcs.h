// The tasks file. A faulty task costs itself and one line in the log, which has its first fault;
// the rest of the file is used.

#ifndef IPSLA_CONFIG_SENDER_HELP_FUNCS_H_
#define IPSLA_CONFIG_SENDER_HELP_FUNCS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "config/keychain.h"
#include "config/task_config.h"

namespace ipsla {

/// Reads the tasks file into `tasks` (emptied first) and appends the file's "cpus" to `cpus`.
/// `keychain` is only used to check key ids. 0, or -1 after logging the reason; when the network
/// environment failed under a "src-interface" lookup, the tasks accepted before it stay in `tasks`.
/// With -1 `fault` is the reason for a person.
/// Threads: one at a time. It may enter a VRF and always returns from it.
[[nodiscard]] int ParseTaskConfigs(const std::string& filename, SlaTaskMap* tasks,
                                   const KeychainStorage& keychain, std::vector<std::uint8_t>* cpus,
                                   std::string* fault);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_SENDER_HELP_FUNCS_H_
