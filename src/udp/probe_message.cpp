#include "udp/probe_message.h"

#include <bit>

#include "udp/wire_fields.h"

namespace ipsla {

namespace {

constexpr std::size_t kTypeOffset = 0;
constexpr std::size_t kEchoSequenceOffset = 2;
constexpr std::size_t kStampOffset = 12;
constexpr std::size_t kSequenceOffset = kReplySequenceEnd - sizeof(std::uint32_t);
constexpr std::size_t kSecondNtpOffset = 20;  // kept-behaviours.md#ntp-replies-overlap
constexpr std::size_t kCounterOffset = 24;
constexpr std::size_t kNtpValueOffset = 54;

constexpr std::size_t kEchoHeaderSize = 4;
constexpr std::size_t kJitterHeaderSize = 28;
constexpr std::size_t kJitterNtpHeaderSize = 56;

static_assert(kReplyReadSize == kNtpValueOffset + sizeof(std::uint16_t));

}  // namespace

std::size_t ProbeHeaderSize(SlaTestType type) {
  switch (type) {
    case SlaTestType::kUdpEcho:
      return kEchoHeaderSize;
    case SlaTestType::kUdpJitter:
      return kJitterHeaderSize;
    case SlaTestType::kUdpJitterNtp:
      return kJitterNtpHeaderSize;
    default:
      return 0;
  }
}

void EncodeProbe(SlaTestType type, std::uint32_t sequence, std::span<std::uint8_t> probe) {
  wire::StoreU16(probe, kTypeOffset, static_cast<std::uint16_t>(type));
  if (type == SlaTestType::kUdpEcho) {
    // The low 16 bits: kept-behaviours.md#numbers-of-16-bits-begin-anew
    wire::StoreU16(probe, kEchoSequenceOffset, static_cast<std::uint16_t>(sequence));
  } else {
    wire::StoreU32(probe, kSequenceOffset, sequence);
  }
}

std::uint32_t ProbeSequence(SlaTestType type, std::span<const std::uint8_t> received) {
  if (type == SlaTestType::kUdpEcho) return wire::LoadU16(received, kEchoSequenceOffset);
  return wire::LoadU32(received, kSequenceOffset);
}

ProbeReply DecodeReply(std::span<const std::uint8_t> buffer) {
  ProbeReply reply;
  reply.type = wire::LoadU16(buffer, kTypeOffset);
  reply.sequence = wire::LoadU32(buffer, kSequenceOffset);
  reply.counter = wire::LoadU32(buffer, kCounterOffset);
  reply.stamp = wire::LoadU64(buffer, kStampOffset);
  reply.ntp_first = std::bit_cast<std::uint64_t>(wire::LoadBytes<8>(buffer, kStampOffset));
  reply.ntp_second = std::bit_cast<std::uint64_t>(wire::LoadBytes<8>(buffer, kSecondNtpOffset));
  reply.ntp_value = wire::LoadU16(buffer, kNtpValueOffset);
  return reply;
}

void EncodeReply(SlaTestType type, const ReplyFields& fields, std::span<std::uint8_t> probe) {
  wire::StoreU16(probe, kTypeOffset, static_cast<std::uint16_t>(type));
  wire::StoreU32(probe, kSequenceOffset, fields.sequence);
  wire::StoreU32(probe, kCounterOffset, fields.counter);
  if (type == SlaTestType::kUdpJitter) wire::StoreU64(probe, kStampOffset, fields.receive_stamp);
  if (type == SlaTestType::kUdpJitterNtp) {
    wire::StoreU64(probe, kStampOffset, fields.ntp_receive);
    wire::StoreU16(probe, kNtpValueOffset,
                   static_cast<std::uint16_t>(fields.counter));  // its low 16 bits
  }
}

}  // namespace ipsla
