// Dumps of the configuration to the log, in clear (keys included, deliberately).

#ifndef IPSLA_CONFIG_PRINT_FUNCS_H_
#define IPSLA_CONFIG_PRINT_FUNCS_H_

#include "config/keychain.h"
#include "config/task_config.h"

namespace ipsla {

/// Logs all tasks in ascending id. Entries are numbered 1, 3, 5, ... in the log file and 2, 4, 6,
/// ... in the system log, and some lines reach the file only when they mean something for the task;
/// both are deliberate.
void PrintTaskConfigs(const SlaTaskMap& tasks, const KeychainStorage& keychain);

/// Logs all keys in ascending id, numbered likewise.
void PrintKeychain(const KeychainStorage& keychain);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_PRINT_FUNCS_H_
