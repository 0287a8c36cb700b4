// The control-phase message: a sender's request for a measurement session and the answer to it, one
// datagram each and of one layout. Pure encoding and decoding, shared by both ends.
//
// Offset  Size  Field                          (multi-byte integers big-endian; bytes without a
// field are zero)
//      0     1  version (2)
//      2     2  status
//      4     4  sequence number
//      8     4  total length (172)
//     12     4  sender timestamp
//     20     2  authentication CSLD: command (1)
//     22     2    status
//     24     4    CSLD length (60)
//     28     1    mode
//     29     1    algorithm
//     31     1    key id
//     32    16    rand number (nonce)
//     48    32    authentication digest
//     80     2  measurement CSLD: command (2)
//     82     2    status
//     84     4    CSLD length (92)
//     88     1    address type (2: IPv4)
//     89     1    role (1: responder)
//     90     1    operation type
//     92     4    session id
//     96    16    control sender address         (IPv4 in the first 4 bytes)
//    112    16    control responder address
//    128    16    measurement sender address
//    144    16    measurement responder address
//    160     2    control sender port
//    162     2    control responder port         (a sender leaves it zero)
//    164     2    measurement sender port
//    166     2    measurement responder port     (in the response: where the probes go)
//    168     4    duration, milliseconds

#ifndef IPSLA_UDP_CONTROL_PHASE_MESSAGE_H_
#define IPSLA_UDP_CONTROL_PHASE_MESSAGE_H_

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "config/task_config.h"

namespace ipsla {

/// Sizes and offsets in bytes, and the constant values of a request's fields.
inline constexpr std::size_t kControlMessageSize = 172;
inline constexpr std::uint8_t kControlProtocolVersion = 2;
inline constexpr std::uint32_t kAuthenticationCsldLength = 60;
inline constexpr std::uint32_t kMeasurementCsldLength = 92;
inline constexpr std::size_t kNonceOffset = 32;
inline constexpr std::size_t kNonceSize = 16;
inline constexpr std::size_t kDigestOffset = 48;
inline constexpr std::size_t kDigestSize = 32;

/// Slack added to every probe interval, milliseconds, when the length of a session is computed.
inline constexpr std::uint32_t kIntervalSlackMs = 7;

/// The message as it is sent.
using ControlMessageBytes = std::array<std::uint8_t, kControlMessageSize>;

/// Every field of the message. Integers in host order, addresses (in_addr) in network order as
/// usual. Defaults are the constant values of a request.
struct ControlPhaseMessage {
  std::uint8_t version = kControlProtocolVersion;
  SlaControlStatus status = SlaControlStatus::kSuccessful;
  std::uint32_t sequence_number = 0;
  std::uint32_t total_length = kControlMessageSize;
  std::uint32_t sender_timestamp = 0;

  /// The authentication block.
  CsldType auth_command = CsldType::kAuthentication;
  SlaControlStatus auth_status = SlaControlStatus::kSuccessful;
  std::uint32_t auth_length = kAuthenticationCsldLength;
  SlaAuthMode auth_mode = SlaAuthMode::kUndefined;
  SlaAuthAlgorithm auth_algorithm = SlaAuthAlgorithm::kUndefined;
  std::uint8_t key_id = 0;
  std::array<std::uint8_t, kNonceSize> nonce{};
  std::array<std::uint8_t, kDigestSize> digest{};

  /// The measurement block. Ports in host order.
  CsldType measurement_command = CsldType::kMeasurement;
  SlaControlStatus measurement_status = SlaControlStatus::kSuccessful;
  std::uint32_t measurement_length = kMeasurementCsldLength;
  AddressType address_type = AddressType::kIpv4;
  Role role = Role::kResponder;
  std::uint8_t operation_type = 0;  ///< an SlaTestType as its number
  /// The session, and where its two conversations go.
  std::uint32_t session_id = 0;
  in_addr control_sender_address{};
  in_addr control_responder_address{};
  in_addr measurement_sender_address{};
  in_addr measurement_responder_address{};
  std::uint16_t control_sender_port = 0;
  std::uint16_t control_responder_port = 0;
  std::uint16_t measurement_sender_port = 0;
  std::uint16_t measurement_responder_port = 0;
  std::uint32_t duration_ms = 0;
};

/// The message as it goes on the wire.
[[nodiscard]] ControlMessageBytes EncodeControlMessage(const ControlPhaseMessage& message);

/// Reads a message from what was received; fields beyond those bytes read as zero. Nothing is
/// checked.
[[nodiscard]] ControlPhaseMessage DecodeControlMessage(std::span<const std::uint8_t> received);

/// The request of a task: every field but nonce and digest, with the addresses and ports as the
/// task holds them now.
[[nodiscard]] ControlPhaseMessage BuildControlRequest(const SlaTaskConfig& task);

/// Length of a measurement session, milliseconds: ("interval" + 7) x "num-packets" + "timeout".
[[nodiscard]] std::int64_t SessionMs(const SlaTaskConfig& task);

/// The same, wrapped in unsigned 32 bits: the request's duration and the length of the sender's
/// measurement timer.
[[nodiscard]] std::uint32_t SessionDuration(const SlaTaskConfig& task);

}  // namespace ipsla

#endif  // IPSLA_UDP_CONTROL_PHASE_MESSAGE_H_
