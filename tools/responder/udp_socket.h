// The responder's sockets.

#ifndef IPSLA_TOOLS_RESPONDER_UDP_SOCKET_H_
#define IPSLA_TOOLS_RESPONDER_UDP_SOCKET_H_

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>

#include "env/descriptor.h"
#include "responder/session.h"

namespace ipsla::responder {

/// A non-blocking IPv4 UDP socket bound to `local`, its datagrams stamped on arrival. On failure
/// there is no descriptor and `error` is the errno value.
[[nodiscard]] Descriptor OpenUdpSocket(const Endpoint& local, int* error);

/// Has ReceiveRequest tell the address to which a datagram was sent.
void EnableArrivalAddress(int fd);

/// Has ReceiveProbe tell the type of service and how many datagrams the kernel dropped. Best
/// effort.
void EnableProbeDetails(int fd);

/// A datagram on the control socket.
struct ReceivedRequest {
  std::size_t bytes = 0;  ///< in the buffer; a longer datagram is cut
  sockaddr_in source{};
  in_addr local{};  ///< the address of this host to which it was sent
};

/// Receives without waiting. Nothing when there is none or on an error.
[[nodiscard]] std::optional<ReceivedRequest> ReceiveRequest(int fd, std::span<std::uint8_t> buffer);

/// Sends from the address to which the request was sent. False when the datagram could not be sent.
[[nodiscard]] bool SendAnswer(int fd, const ReceivedRequest& request,
                              std::span<const std::uint8_t> answer);

/// A datagram on a measurement socket.
struct ReceivedProbe {
  std::size_t bytes = 0;  ///< in the buffer; a longer datagram is cut
  sockaddr_in source{};
  timespec arrival{};  ///< real-time clock at arrival: the kernel's stamp, or read after receiving
  std::uint8_t type_of_service = 0;  ///< DSCP in the upper six bits
  std::uint32_t dropped = 0;  ///< by the kernel for want of room, since the socket was opened
};

/// Receives without waiting. Nothing when there is none or on an error.
[[nodiscard]] std::optional<ReceivedProbe> ReceiveProbe(int fd, std::span<std::uint8_t> buffer);

/// Sends a reply with this DSCP in its type of service (the lower two bits are zero). False when it
/// could not be sent.
[[nodiscard]] bool SendReply(int fd, const sockaddr_in& peer, std::span<std::uint8_t> reply,
                             std::uint8_t dscp);

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_UDP_SOCKET_H_
