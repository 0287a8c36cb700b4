// UDP measurement probes and their replies, as both ends see them. Offsets into the UDP payload,
// integers big-endian.
//
// Probe                                          Reply, as the sender reads it
//  0  2  test type code                           0  2  test type code
//  2  2  sequence number (udp-echo)              12  8  udp-jitter: responder's time of day, 10 ns
// 20  4  sequence number (jitter types)                 udp-jitter-ntp: responder's NTP time stamp
// header end .. payload end: padding             20  4  sequence number of the probe answered,
// every type
//                                                20  8  udp-jitter-ntp: second NTP field
//                                                (over the two counters)
// Header: udp-echo 4, udp-jitter 28,             24  4  responder's counter, every type
// udp-jitter-ntp 56 bytes.                       54  2  udp-jitter-ntp: responder's value

#ifndef IPSLA_UDP_PROBE_MESSAGE_H_
#define IPSLA_UDP_PROBE_MESSAGE_H_

#include <cstddef>
#include <cstdint>
#include <span>

#include "config/task_config.h"

namespace ipsla {

/// Bytes of the probe that are not padding; 0 for types that are not UDP.
[[nodiscard]] std::size_t ProbeHeaderSize(SlaTestType type);

/// Furthest byte that is read from a reply, plus one: buffers for replies are at least this long.
inline constexpr std::size_t kReplyReadSize = 56;

/// End of the sequence number in a reply of any type: a shorter reply to a probe reads as number 0.
inline constexpr std::size_t kReplySequenceEnd = 24;

/// Writes type and sequence number into a probe whose other header bytes are zero. `probe` is at
/// least the header long (callers keep buffers of 64 bytes or more).
void EncodeProbe(SlaTestType type, std::uint32_t sequence, std::span<std::uint8_t> probe);

/// The sequence number of a received probe: 16 bits at offset 2 for udp-echo, else 32 bits at
/// offset 20. Bytes beyond `received` read as zero.
[[nodiscard]] std::uint32_t ProbeSequence(SlaTestType type, std::span<const std::uint8_t> received);

/// What the sender reads from a reply.
struct ProbeReply {
  std::uint16_t type = 0;
  std::uint32_t sequence = 0;
  std::uint32_t counter = 0;     ///< offset 24
  std::uint64_t stamp = 0;       ///< offset 12, host order (udp-jitter)
  std::uint64_t ntp_first = 0;   ///< offset 12, as it stands in memory (network order)
  std::uint64_t ntp_second = 0;  ///< offset 20, as it stands in memory (network order)
  std::uint16_t ntp_value = 0;   ///< offset 54
};

/// Reads a reply from a buffer; bytes beyond it read as zero. The sender passes its whole buffer:
/// kept-behaviours.md#short-replies-are-completed-from-the-buffer
[[nodiscard]] ProbeReply DecodeReply(std::span<const std::uint8_t> buffer);

/// What a responder writes into the copy of a probe that it sends back.
struct ReplyFields {
  std::uint32_t sequence = 0;
  std::uint32_t counter = 0;        ///< probes received in the session so far, this one included
  std::uint64_t receive_stamp = 0;  ///< udp-jitter: time of day, 10 ns
  std::uint64_t ntp_receive =
      0;  ///< udp-jitter-ntp: NTP stamp of arrival, host order, written at offset 12
};

/// Turns a received probe into its reply, in place and without changing its length; fields that do
/// not fit into `probe` are left out. udp-jitter-ntp replies also carry the counter's low 16 bits
/// at offset 54.
void EncodeReply(SlaTestType type, const ReplyFields& fields, std::span<std::uint8_t> probe);

}  // namespace ipsla

#endif  // IPSLA_UDP_PROBE_MESSAGE_H_
