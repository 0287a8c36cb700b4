#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "env/environment.h"
#include "env/time_values.h"

namespace ipsla {
namespace {

constexpr std::size_t kMaxReceiveBuffer = 8U << 20U;

// The kernel charges a queued datagram for its whole buffer and its bookkeeping, which for a small
// one is many times its payload; a driver may round the buffer up to a power of two.
constexpr std::size_t ChargedBytes(std::size_t bytes) {
  return 2048 + 2 * std::min(bytes, kMaxReceiveBuffer);
}

}  // namespace

int SetSockOpt(int fd, int level, int option, const void* value, socklen_t length,
               const std::string& name) {
  const int result = setsockopt(fd, level, option, value, length);
  // "%m" stays as it is, deliberately: the text is part of the interface.
  if (result == -1) throw std::runtime_error("Failed to set sockoption " + name + ": %m");
  return result;
}

void EnableReceiveStamps(int fd) {
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
}

void ReserveReceiveBuffer(int fd, std::size_t datagrams, std::size_t bytes) {
  const std::size_t each = ChargedBytes(bytes);
  const std::size_t wanted = std::min(datagrams, kMaxReceiveBuffer / each + 1) * each;
  int current = 0;
  socklen_t length = sizeof current;
  if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &current, &length) != 0) return;
  if (wanted <= static_cast<std::size_t>(current)) return;
  // The kernel doubles what it is given. Without the right to force it, its own limit
  // (net.core.rmem_max) holds.
  const int half = static_cast<int>(std::min(wanted, kMaxReceiveBuffer) / 2);
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &half, sizeof half) == 0) return;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &half, sizeof half);
}

std::optional<StampedDatagram> ReceiveStamped(int fd, void* buffer, std::size_t size, int* error) {
  StampedDatagram datagram;
  iovec vector{buffer, size};
  alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(sizeof(timespec))> control{};
  msghdr message{};
  ssize_t received = -1;
  do {
    message = {};
    message.msg_name = &datagram.source;
    message.msg_namelen = sizeof datagram.source;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    received = recvmsg(fd, &message, MSG_DONTWAIT);
  } while (received < 0 && errno == EINTR);
  if (received < 0) {
    *error = errno;
    return std::nullopt;
  }
  *error = 0;
  datagram.bytes = static_cast<std::size_t>(received);
  datagram.arrival = RealTimeNow();
  for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
       item = CMSG_NXTHDR(&message, item)) {
    if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_TIMESTAMPNS) continue;
    std::memcpy(&datagram.arrival, CMSG_DATA(item), sizeof datagram.arrival);
  }
  return datagram;
}

}  // namespace ipsla
