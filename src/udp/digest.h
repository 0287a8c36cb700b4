// Digests of control-phase messages and their text form. No log and no globals: both ends of the
// protocol use it.

#ifndef IPSLA_UDP_DIGEST_H_
#define IPSLA_UDP_DIGEST_H_

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "config/task_config.h"
#include "udp/control_phase_message.h"

namespace ipsla {

/// As it stands in the message.
using Digest = std::array<std::uint8_t, kDigestSize>;

/// The digest that a message with this key must carry, computed over the 172 bytes with the digest
/// field taken as zero (whatever it holds): SHA-256 of the message followed by the key, or
/// HMAC-SHA-256 of the message under the key. Nothing for an undefined algorithm or when the
/// library fails.
[[nodiscard]] std::optional<Digest> MessageDigest(
    SlaAuthAlgorithm algorithm, std::span<const std::uint8_t, kControlMessageSize> message,
    std::string_view key);

/// Two lower-case hexadecimal digits per byte, high nibble first, no separators.
[[nodiscard]] std::string HexEncode(std::span<const std::uint8_t> bytes);

}  // namespace ipsla

#endif  // IPSLA_UDP_DIGEST_H_
