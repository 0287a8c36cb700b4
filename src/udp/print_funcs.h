// Dump of control-phase messages to the log.

#ifndef IPSLA_UDP_PRINT_FUNCS_H_
#define IPSLA_UDP_PRINT_FUNCS_H_

#include <cstdint>

#include "config/keychain.h"
#include "config/task_config.h"

namespace ipsla {

/// Logs one control-phase message field by field to the log of test `id`, the key in clear
/// (deliberately). A size of 23 or less logs only "invalid buffer size", a null buffer "no args";
/// with 24 to 171 bytes the rest reads as zeros.
void PrintCtlPhPkt(std::uint16_t id, const std::uint8_t* buffer, std::uint16_t size,
                   bool is_response, const SlaAuthConfig& auth, const KeychainStorage& keychain);

}  // namespace ipsla

#endif  // IPSLA_UDP_PRINT_FUNCS_H_
