// Dump of control-phase messages to the log.

#ifndef IPSLA_UDP_PRINT_FUNCS_H_
#define IPSLA_UDP_PRINT_FUNCS_H_

#include <cstdint>

#include "config/keychain.h"
#include "config/task_config.h"

namespace ipsla {

/// Logs one control-phase message field by field to the log of test `id`
/// (kept-behaviours.md#keys-stand-in-the-log-in-clear). Below 24 bytes there is only "invalid
/// buffer size", for a null buffer "no args"; bytes missing from there on read as zeros.
void PrintCtlPhPkt(std::uint16_t id, const std::uint8_t* buffer, std::uint16_t size,
                   bool is_response, const SlaAuthConfig& auth, const KeychainStorage& keychain);

}  // namespace ipsla

#endif  // IPSLA_UDP_PRINT_FUNCS_H_
