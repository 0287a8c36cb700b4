#include "udp/control_phase_message.h"

#include <arpa/inet.h>

#include <bit>

#include "udp/wire_fields.h"

namespace ipsla {

namespace {

constexpr std::size_t kVersionOffset = 0;
constexpr std::size_t kStatusOffset = 2;
constexpr std::size_t kSequenceNumberOffset = 4;
constexpr std::size_t kTotalLengthOffset = 8;
constexpr std::size_t kSenderTimestampOffset = 12;

constexpr std::size_t kAuthCommandOffset = 20;
constexpr std::size_t kAuthStatusOffset = 22;
constexpr std::size_t kAuthLengthOffset = 24;
constexpr std::size_t kAuthModeOffset = 28;
constexpr std::size_t kAuthAlgorithmOffset = 29;
constexpr std::size_t kKeyIdOffset = 31;

constexpr std::size_t kMeasurementCommandOffset = 80;
constexpr std::size_t kMeasurementStatusOffset = 82;
constexpr std::size_t kMeasurementLengthOffset = 84;
constexpr std::size_t kAddressTypeOffset = 88;
constexpr std::size_t kRoleOffset = 89;
constexpr std::size_t kOperationTypeOffset = 90;
constexpr std::size_t kSessionIdOffset = 92;
constexpr std::size_t kControlSenderAddressOffset = 96;
constexpr std::size_t kControlResponderAddressOffset = 112;
constexpr std::size_t kMeasurementSenderAddressOffset = 128;
constexpr std::size_t kMeasurementResponderAddressOffset = 144;
constexpr std::size_t kControlSenderPortOffset = 160;
constexpr std::size_t kControlResponderPortOffset = 162;
constexpr std::size_t kMeasurementSenderPortOffset = 164;
constexpr std::size_t kMeasurementResponderPortOffset = 166;
constexpr std::size_t kDurationOffset = 168;

using AddressBytes = std::array<std::uint8_t, sizeof(in_addr)>;

// An in_addr is in network order already: its bytes go out as they stand in memory.
void StoreAddress(std::span<std::uint8_t> bytes, std::size_t offset, in_addr address) {
  wire::StoreBytes(bytes, offset, std::bit_cast<AddressBytes>(address));
}

in_addr LoadAddress(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return std::bit_cast<in_addr>(wire::LoadBytes<sizeof(in_addr)>(bytes, offset));
}

void EncodeMeasurementCsld(const ControlPhaseMessage& message, std::span<std::uint8_t> out) {
  wire::StoreU16(out, kMeasurementCommandOffset, NumberOf(message.measurement_command));
  wire::StoreU16(out, kMeasurementStatusOffset, NumberOf(message.measurement_status));
  wire::StoreU32(out, kMeasurementLengthOffset, message.measurement_length);
  wire::StoreU8(out, kAddressTypeOffset, NumberOf(message.address_type));
  wire::StoreU8(out, kRoleOffset, NumberOf(message.role));
  wire::StoreU8(out, kOperationTypeOffset, message.operation_type);
  wire::StoreU32(out, kSessionIdOffset, message.session_id);
  StoreAddress(out, kControlSenderAddressOffset, message.control_sender_address);
  StoreAddress(out, kControlResponderAddressOffset, message.control_responder_address);
  StoreAddress(out, kMeasurementSenderAddressOffset, message.measurement_sender_address);
  StoreAddress(out, kMeasurementResponderAddressOffset, message.measurement_responder_address);
  wire::StoreU16(out, kControlSenderPortOffset, message.control_sender_port);
  wire::StoreU16(out, kControlResponderPortOffset, message.control_responder_port);
  wire::StoreU16(out, kMeasurementSenderPortOffset, message.measurement_sender_port);
  wire::StoreU16(out, kMeasurementResponderPortOffset, message.measurement_responder_port);
  wire::StoreU32(out, kDurationOffset, message.duration_ms);
}

void DecodeMeasurementCsld(std::span<const std::uint8_t> in, ControlPhaseMessage* message) {
  message->measurement_command =
      static_cast<CsldType>(wire::LoadU16(in, kMeasurementCommandOffset));
  message->measurement_status =
      static_cast<SlaControlStatus>(wire::LoadU16(in, kMeasurementStatusOffset));
  message->measurement_length = wire::LoadU32(in, kMeasurementLengthOffset);
  message->address_type = static_cast<AddressType>(wire::LoadU8(in, kAddressTypeOffset));
  message->role = static_cast<Role>(wire::LoadU8(in, kRoleOffset));
  message->operation_type = wire::LoadU8(in, kOperationTypeOffset);
  message->session_id = wire::LoadU32(in, kSessionIdOffset);
  message->control_sender_address = LoadAddress(in, kControlSenderAddressOffset);
  message->control_responder_address = LoadAddress(in, kControlResponderAddressOffset);
  message->measurement_sender_address = LoadAddress(in, kMeasurementSenderAddressOffset);
  message->measurement_responder_address = LoadAddress(in, kMeasurementResponderAddressOffset);
  message->control_sender_port = wire::LoadU16(in, kControlSenderPortOffset);
  message->control_responder_port = wire::LoadU16(in, kControlResponderPortOffset);
  message->measurement_sender_port = wire::LoadU16(in, kMeasurementSenderPortOffset);
  message->measurement_responder_port = wire::LoadU16(in, kMeasurementResponderPortOffset);
  message->duration_ms = wire::LoadU32(in, kDurationOffset);
}

}  // namespace

ControlMessageBytes EncodeControlMessage(const ControlPhaseMessage& message) {
  ControlMessageBytes bytes{};
  const std::span<std::uint8_t> out(bytes);
  wire::StoreU8(out, kVersionOffset, message.version);
  wire::StoreU16(out, kStatusOffset, NumberOf(message.status));
  wire::StoreU32(out, kSequenceNumberOffset, message.sequence_number);
  wire::StoreU32(out, kTotalLengthOffset, message.total_length);
  wire::StoreU32(out, kSenderTimestampOffset, message.sender_timestamp);

  wire::StoreU16(out, kAuthCommandOffset, NumberOf(message.auth_command));
  wire::StoreU16(out, kAuthStatusOffset, NumberOf(message.auth_status));
  wire::StoreU32(out, kAuthLengthOffset, message.auth_length);
  wire::StoreU8(out, kAuthModeOffset, NumberOf(message.auth_mode));
  wire::StoreU8(out, kAuthAlgorithmOffset, NumberOf(message.auth_algorithm));
  wire::StoreU8(out, kKeyIdOffset, message.key_id);
  wire::StoreBytes(out, kNonceOffset, message.nonce);
  wire::StoreBytes(out, kDigestOffset, message.digest);

  EncodeMeasurementCsld(message, out);
  return bytes;
}

ControlPhaseMessage DecodeControlMessage(std::span<const std::uint8_t> received) {
  ControlPhaseMessage message;
  message.version = wire::LoadU8(received, kVersionOffset);
  message.status = static_cast<SlaControlStatus>(wire::LoadU16(received, kStatusOffset));
  message.sequence_number = wire::LoadU32(received, kSequenceNumberOffset);
  message.total_length = wire::LoadU32(received, kTotalLengthOffset);
  message.sender_timestamp = wire::LoadU32(received, kSenderTimestampOffset);

  message.auth_command = static_cast<CsldType>(wire::LoadU16(received, kAuthCommandOffset));
  message.auth_status = static_cast<SlaControlStatus>(wire::LoadU16(received, kAuthStatusOffset));
  message.auth_length = wire::LoadU32(received, kAuthLengthOffset);
  message.auth_mode = static_cast<SlaAuthMode>(wire::LoadU8(received, kAuthModeOffset));
  message.auth_algorithm =
      static_cast<SlaAuthAlgorithm>(wire::LoadU8(received, kAuthAlgorithmOffset));
  message.key_id = wire::LoadU8(received, kKeyIdOffset);
  message.nonce = wire::LoadBytes<kNonceSize>(received, kNonceOffset);
  message.digest = wire::LoadBytes<kDigestSize>(received, kDigestOffset);

  DecodeMeasurementCsld(received, &message);
  return message;
}

ControlPhaseMessage BuildControlRequest(const SlaTaskConfig& task) {
  ControlPhaseMessage request;
  request.auth_mode = task.auth.mode;
  request.auth_algorithm = task.auth.algorithm;
  request.key_id = task.auth.key_id;
  request.operation_type = static_cast<std::uint8_t>(task.sla_type);
  request.control_sender_address = task.control_phase.src.sin_addr;
  request.control_responder_address = task.control_phase.dst.sin_addr;
  request.measurement_sender_address = task.measurement.src.sin_addr;
  request.measurement_responder_address = task.measurement.dst.sin_addr;
  request.control_sender_port = ntohs(task.control_phase.src.sin_port);
  // kept-behaviours.md#requests-leave-the-control-port-at-0
  request.measurement_sender_port = ntohs(task.measurement.src.sin_port);
  request.measurement_responder_port = ntohs(task.measurement.dst.sin_port);
  request.duration_ms = SessionDuration(task);
  return request;
}

std::int64_t SessionMs(const SlaTaskConfig& task) {
  return PlainRunMs(task) + std::int64_t{kIntervalSlackMs} * task.num_packets;
}

std::uint32_t SessionDuration(const SlaTaskConfig& task) {
  return static_cast<std::uint32_t>(SessionMs(task));
}

}  // namespace ipsla
