#include "udp/print_funcs.h"

#include <span>
#include <string>

#include "log/format.h"
#include "log/log.h"
#include "udp/control_phase_message.h"
#include "udp/digest.h"

namespace ipsla {

namespace {

// The command header and the first field of the next block: less than this is no message.
constexpr std::uint16_t kSmallestPrinted = 24;

std::string HeaderBlock(const ControlPhaseMessage& message, bool is_response) {
  return Format(
      " [Control phase %s]\n"
      "   |- Command-Header\n"
      "   .  |- Version                   : #%u\n"
      "   .  |- Status                    : %s (#%u)\n"
      "   .  |- Sequence number           : %u\n"
      "   .  |- Total length              : %u bytes\n"
      "   .  |- Sender timestamp          : %u\n"
      "   .  -\n"
      "   |- Authentication CSLD\n"
      "   .  |- Command                   : %s (#%u)\n"
      "   .  |- Status                    : %s (#%u)\n"
      "   .  |- CSLD length               : %u bytes\n"
      "   .  |- Mode                      : %s (#%u)",
      is_response ? "response" : "request", static_cast<unsigned>(message.version),
      ControlStatusToString(message.status).c_str(), NumberOf(message.status),
      message.sequence_number, message.total_length, message.sender_timestamp,
      CsldTypeToString(message.auth_command).c_str(), NumberOf(message.auth_command),
      ControlStatusToString(message.auth_status).c_str(), NumberOf(message.auth_status),
      message.auth_length, AuthModeToString(message.auth_mode).c_str(),
      NumberOf(message.auth_mode));
}

std::string MeasurementBlock(const ControlPhaseMessage& message) {
  const auto operation = static_cast<SlaTestType>(message.operation_type);
  return Format(
      "   .  |- Rand number               : %s\n"
      "   .  |- Authentication digest     : %s\n"
      "   .  -\n"
      "   |- Measurement CSLD\n"
      "   .  |- Command                   : %s (#%u)\n"
      "   .  |- Status                    : %s (#%u)\n"
      "   .  |- CSLD length               : %u bytes\n"
      "   .  |- Address type              : %s (#%u)\n"
      "   .  |- Role                      : %s (#%u)\n"
      "   .  |- Operation type            : %s (#%u)\n"
      "   .  |- Session ID                : #%u\n"
      "   .  |- Control sender address    : %s:%d\n"
      "   .  |- Control responder address : %s\n"
      "   .  |- Measur. sender address    : %s:%d\n"
      "   .  |- Measur. responder address : %s:%d\n"
      "   .  |- Duration                  : %u ms\n"
      "   .  -\n"
      "   -",
      HexEncode(message.nonce).c_str(), HexEncode(message.digest).c_str(),
      CsldTypeToString(message.measurement_command).c_str(), NumberOf(message.measurement_command),
      ControlStatusToString(message.measurement_status).c_str(),
      NumberOf(message.measurement_status), message.measurement_length,
      AddressTypeToString(message.address_type).c_str(), NumberOf(message.address_type),
      RoleToString(message.role).c_str(), NumberOf(message.role),
      TestTypeToString(operation).c_str(), message.operation_type, message.session_id,
      Ipv4ToString(message.control_sender_address).c_str(), message.control_sender_port,
      Ipv4ToString(message.control_responder_address).c_str(),
      Ipv4ToString(message.measurement_sender_address).c_str(), message.measurement_sender_port,
      Ipv4ToString(message.measurement_responder_address).c_str(),
      message.measurement_responder_port, message.duration_ms);
}

}  // namespace

void PrintCtlPhPkt(std::uint16_t id, const std::uint8_t* buffer, std::uint16_t size,
                   bool is_response, const SlaAuthConfig& auth, const KeychainStorage& keychain) {
  if (buffer == nullptr) {
    LOG_DEBUG(id, "no args");
    return;
  }
  if (size < kSmallestPrinted) {
    LOG_DEBUG(id, "invalid buffer size");
    return;
  }
  const ControlPhaseMessage message = DecodeControlMessage(std::span(buffer, size));
  LOG_DEBUG(id, "%s", HeaderBlock(message, is_response).c_str());

  // The task's own mode decides, not the message's.
  if (auth.mode == SlaAuthMode::kPassword || auth.mode == SlaAuthMode::kKeychain) {
    std::string key;
    GetTaskKey(&key, auth, keychain);
    LOG_DEBUG(id, "   .  |- Algorithm                 : %s (#%u)\n   .  |- Key",
              AuthAlgorithmToString(message.auth_algorithm).c_str(),
              NumberOf(message.auth_algorithm));
    // kept-behaviours.md#dumps-differ-between-the-two-logs
    const unsigned key_id = message.key_id;
    if (auth.mode == SlaAuthMode::kKeychain) {
      LOG_DEBUG_FILE(id, "   .  .  |- ID                     : #%u", key_id);
    }
    LOG_DEBUG_SYSTEM("   .  .  |- ID                     : #%u", key_id);
    LOG_DEBUG(id, "   .  .  |- Value                  : \"%s\"\n   .  .  -\n   .  -", key.c_str());
  } else {
    LOG_DEBUG(id, "   .  -");
  }
  LOG_DEBUG(id, "%s", MeasurementBlock(message).c_str());
}

}  // namespace ipsla
