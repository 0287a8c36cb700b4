// Dumps of the configuration to the log, keys included
// (kept-behaviours.md#keys-stand-in-the-log-in-clear).

#ifndef IPSLA_CONFIG_PRINT_FUNCS_H_
#define IPSLA_CONFIG_PRINT_FUNCS_H_

#include "config/keychain.h"
#include "config/task_config.h"

namespace ipsla {

/// Logs all tasks in ascending id. Numbers and lines are not those of the system log:
/// kept-behaviours.md#dumps-differ-between-the-two-logs
void PrintTaskConfigs(const SlaTaskMap& tasks, const KeychainStorage& keychain);

/// Logs all keys in ascending id, numbered likewise.
void PrintKeychain(const KeychainStorage& keychain);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_PRINT_FUNCS_H_
