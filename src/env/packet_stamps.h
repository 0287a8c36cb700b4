// Datagrams with the time at which the kernel saw them.

#ifndef IPSLA_ENV_PACKET_STAMPS_H_
#define IPSLA_ENV_PACKET_STAMPS_H_

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>

namespace ipsla {

/// Asks the kernel to stamp every datagram of this socket when it arrives (SO_TIMESTAMPNS,
/// socket(7)). Best effort: without it ReceiveStamped reads the clock.
void EnableReceiveStamps(int fd);

/// Asks the kernel to stamp every datagram of this socket when it arrives and when it is handed to
/// the network driver (SO_TIMESTAMPING, software; see "timestamping" in the kernel's networking
/// documentation). The socket's sends are numbered from 0 from this call on. Best effort: without
/// it ReceiveStamped reads the clock and TakeTransmitStamp finds nothing.
void EnableProbeStamps(int fd);

/// When a sent datagram left.
struct TransmitStamp {
  std::uint32_t number = 0;  ///< which send since EnableProbeStamps, from 0
  timespec departure{};      ///< real-time clock
};

/// Takes one stamp of departure from the socket's error queue without waiting; other things that
/// stand there are dropped. Nothing when there is none.
[[nodiscard]] std::optional<TransmitStamp> TakeTransmitStamp(int fd);

/// One datagram taken by ReceiveStamped.
struct StampedDatagram {
  std::size_t bytes = 0;  ///< bytes stored in the buffer (a longer datagram is cut)
  /// Real-time clock at arrival: the kernel's stamp, or the clock read after receiving.
  timespec arrival{};
  sockaddr_in source{};                  ///< where it came from, for IPv4 sockets
  std::span<const std::uint8_t> buffer;  ///< all of the caller's buffer; `bytes` of it are new
};

/// Receives one datagram without waiting (recvmsg(2)). Nothing when there is none or on an error;
/// `error` is then the errno value (EAGAIN: nothing there), else 0. Repeats EINTR.
[[nodiscard]] std::optional<StampedDatagram> ReceiveStamped(int fd, void* buffer, std::size_t size,
                                                            int* error);

}  // namespace ipsla

#endif  // IPSLA_ENV_PACKET_STAMPS_H_
