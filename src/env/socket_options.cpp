#include "env/socket_options.h"

#include <algorithm>
#include <stdexcept>

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
  // kept-behaviours.md#some-reasons-end-in-m
  if (result == -1) throw std::runtime_error("Failed to set sockoption " + name + ": %m");
  return result;
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

}  // namespace ipsla
