// ICMP echo and time-stamp messages (RFC 792) as the ICMP tests send and read them. Integers in
// network order.
//
// Request                                    Reply, behind an IPv4 header of 20 bytes
//  0  1  type (8 echo, 13 time stamp)        20  1  type (0 echo, 14 time stamp)
//  1  1  code 0                              21  1  code
//  2  2  checksum (RFC 1071)                 24  2  identifier
//  4  2  identifier                          26  2  sequence number
//  6  2  sequence number                     28  4  originate time stamp   (time stamp only)
//  8  4  originate time stamp                32  4  receive time stamp     (time stamp only)
// 12  8  receive, transmit time stamps 0     36  4  transmit time stamp    (time stamp only)
//        payload from 8 (echo) or 20

#ifndef IPSLA_SENDER_ICMP_MESSAGE_H_
#define IPSLA_SENDER_ICMP_MESSAGE_H_

#include <cstddef>
#include <cstdint>
#include <span>

namespace ipsla {

/// Message types.
inline constexpr std::uint8_t kIcmpEchoReply = 0;
inline constexpr std::uint8_t kIcmpEchoRequest = 8;
inline constexpr std::uint8_t kIcmpTimestampRequest = 13;
inline constexpr std::uint8_t kIcmpTimestampReply = 14;

/// Bytes.
inline constexpr std::size_t kIpv4HeaderSize = 20;
inline constexpr std::size_t kIcmpHeaderSize = 8;
inline constexpr std::size_t kIcmpTimestampHeaderSize = 20;

/// The Internet checksum (RFC 1071) of `bytes`, in host order, to be stored big-endian.
[[nodiscard]] std::uint16_t InternetChecksum(std::span<const std::uint8_t> bytes);

/// Writes type, code 0, identifier and sequence number, checksum 0. `buffer` holds at least 8
/// bytes.
void EncodeIcmpHeader(std::uint8_t type, std::uint16_t identifier, std::uint16_t sequence,
                      std::span<std::uint8_t> buffer);

/// Writes the originate time stamp of a time-stamp request. `buffer` holds at least 12 bytes.
void EncodeOriginateTimestamp(std::uint32_t milliseconds_of_day, std::span<std::uint8_t> buffer);

/// Computes the checksum over the first `covered` bytes of the request and stores it. `buffer`
/// holds at least 4 bytes and `covered` is at most its size.
void SealIcmpMessage(std::size_t covered, std::span<std::uint8_t> buffer);

/// A reply's fields.
struct IcmpReply {
  std::uint8_t type = 0;
  std::uint8_t code = 0;
  std::uint16_t identifier = 0;
  std::uint16_t sequence = 0;
  std::uint32_t originate_timestamp = 0;  ///< the request's, returned; host order
  std::uint32_t receive_timestamp = 0;    ///< as it stands, host order
  std::uint32_t transmit_timestamp = 0;   ///< as it stands, host order
};

/// Reads a packet as a raw socket delivers it, IPv4 header first. Fields beyond `received` read as
/// zero.
[[nodiscard]] IcmpReply DecodeIcmpReply(std::span<const std::uint8_t> received);

}  // namespace ipsla

#endif  // IPSLA_SENDER_ICMP_MESSAGE_H_
