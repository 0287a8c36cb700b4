#include "sender/icmp_message.h"

#include <algorithm>
#include <array>

#include <boost/endian/conversion.hpp>

namespace ipsla {
namespace {

constexpr std::size_t kIcmpTypeOffset = 0;
constexpr std::size_t kCodeOffset = 1;
constexpr std::size_t kChecksumOffset = 2;
constexpr std::size_t kIdentifierOffset = 4;
constexpr std::size_t kIcmpSequenceOffset = 6;
constexpr std::size_t kOriginateOffset = 8;
constexpr std::size_t kReceiveOffset = 12;
constexpr std::size_t kTransmitOffset = 16;

}  // namespace

std::uint16_t InternetChecksum(std::span<const std::uint8_t> bytes) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    sum += boost::endian::load_big_u16(&bytes[i]);
  }
  if (bytes.size() % 2 != 0) sum += static_cast<std::uint64_t>(bytes.back()) << 8U;
  while (sum > 0xFFFFU) sum = (sum & 0xFFFFU) + (sum >> 16U);
  return static_cast<std::uint16_t>(~sum);
}

void EncodeIcmpHeader(std::uint8_t type, std::uint16_t identifier, std::uint16_t sequence,
                      std::span<std::uint8_t> buffer) {
  buffer[kIcmpTypeOffset] = type;
  buffer[kCodeOffset] = 0;
  boost::endian::store_big_u16(&buffer[kChecksumOffset], 0);
  boost::endian::store_big_u16(&buffer[kIdentifierOffset], identifier);
  boost::endian::store_big_u16(&buffer[kIcmpSequenceOffset], sequence);
}

void EncodeOriginateTimestamp(std::uint32_t milliseconds_of_day, std::span<std::uint8_t> buffer) {
  boost::endian::store_big_u32(&buffer[kOriginateOffset], milliseconds_of_day);
}

void SealIcmpMessage(std::size_t covered, std::span<std::uint8_t> buffer) {
  boost::endian::store_big_u16(&buffer[kChecksumOffset], 0);
  boost::endian::store_big_u16(&buffer[kChecksumOffset], InternetChecksum(buffer.first(covered)));
}

IcmpReply DecodeIcmpReply(std::span<const std::uint8_t> received) {
  std::array<std::uint8_t, kIcmpTimestampHeaderSize> header{};
  if (received.size() > kIpv4HeaderSize) {
    const auto icmp = received.subspan(kIpv4HeaderSize);
    std::copy_n(icmp.begin(), std::min(icmp.size(), header.size()), header.begin());
  }
  return {.type = header[kIcmpTypeOffset],
          .code = header[kCodeOffset],
          .identifier = boost::endian::load_big_u16(&header[kIdentifierOffset]),
          .sequence = boost::endian::load_big_u16(&header[kIcmpSequenceOffset]),
          .originate_timestamp = boost::endian::load_big_u32(&header[kOriginateOffset]),
          .receive_timestamp = boost::endian::load_big_u32(&header[kReceiveOffset]),
          .transmit_timestamp = boost::endian::load_big_u32(&header[kTransmitOffset])};
}

}  // namespace ipsla
