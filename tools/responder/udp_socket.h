// The responder's sockets and the addresses of its host.

#ifndef IPSLA_TOOLS_RESPONDER_UDP_SOCKET_H_
#define IPSLA_TOOLS_RESPONDER_UDP_SOCKET_H_

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <span>
#include <utility>

#include "responder/session.h"

namespace ipsla::responder {

/// Owns a descriptor. Movable, closed at the end.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept;

  [[nodiscard]] int Get() const { return fd_; }
  [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

/// A non-blocking IPv4 UDP socket bound to `local`, its datagrams stamped on arrival. On failure
/// the descriptor is not open and `error` is the errno value.
[[nodiscard]] Descriptor OpenUdpSocket(const Endpoint& local, int* error);

/// Has ReceiveRequest tell the address to which a datagram was sent.
void EnableArrivalAddress(int fd);

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

/// True when an interface of this host has the address (all of 127.0.0.0/8 where there is a
/// loopback address).
[[nodiscard]] bool IsLocalAddress(in_addr address);

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_UDP_SOCKET_H_
