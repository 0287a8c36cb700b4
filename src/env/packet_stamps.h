// Datagrams with the time at which the kernel saw them.

#ifndef IPSLA_ENV_PACKET_STAMPS_H_
#define IPSLA_ENV_PACKET_STAMPS_H_

#include <netinet/in.h>

#include <cstddef>
#include <ctime>
#include <optional>

namespace ipsla {

/// Asks the kernel to stamp every datagram of this socket when it arrives (SO_TIMESTAMPNS,
/// socket(7)). Best effort: without it ReceiveStamped reads the clock.
void EnableReceiveStamps(int fd);

/// One datagram taken by ReceiveStamped.
struct StampedDatagram {
  std::size_t bytes = 0;  ///< bytes stored in the buffer (a longer datagram is cut)
  timespec arrival{};  ///< real-time clock at arrival: the kernel's stamp, or the clock read after
                       ///< receiving
  sockaddr_in source{};  ///< where it came from, for IPv4 sockets
};

/// Receives one datagram without waiting (recvmsg(2)). Nothing when there is none or on an error;
/// `error` is then the errno value (EAGAIN: nothing there), else 0. Repeats EINTR.
[[nodiscard]] std::optional<StampedDatagram> ReceiveStamped(int fd, void* buffer, std::size_t size,
                                                            int* error);

}  // namespace ipsla

#endif  // IPSLA_ENV_PACKET_STAMPS_H_
