// The sender's digest functions, with their log lines.

#ifndef IPSLA_UDP_AUTH_FUNCS_H_
#define IPSLA_UDP_AUTH_FUNCS_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <openssl/evp.h>

#include "config/task_config.h"
#include "udp/control_phase_message.h"

namespace ipsla {

/// Digest of `data` with `method` into `out` (room for 32 bytes), its length into `out_length`. 0,
/// or -1 after logging the step that failed under test `id`. A null or zero argument logs "no args"
/// and gives -1.
int GetHash(std::uint16_t id, const EVP_MD* method, const std::uint8_t* data, std::size_t length,
            std::uint8_t* out, unsigned int* out_length);

/// HMAC of `data` with `method` under the MAC key `key`; otherwise as GetHash. The length is 0 when
/// the last step fails. Threads: of one priority, both; SignControlRequest lets one in at a time.
int GetHmac(std::uint16_t id, const EVP_MD* method, const std::uint8_t* data, std::size_t length,
            std::uint8_t* out, unsigned int* out_length, EVP_PKEY* key);

/// Gives a request a fresh nonce and its digest, with the key of the test. `request` is otherwise
/// complete. False after logging the reason (an unknown algorithm, or a failure of the library)
/// under test `id`. Threads: any, of any priority.
[[nodiscard]] bool SignControlRequest(std::uint16_t id, SlaAuthAlgorithm algorithm,
                                      std::string_view key, ControlPhaseMessage* request);

}  // namespace ipsla

#endif  // IPSLA_UDP_AUTH_FUNCS_H_
