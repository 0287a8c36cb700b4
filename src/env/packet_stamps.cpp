#include "env/packet_stamps.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "env/time_values.h"

namespace ipsla {

void EnableReceiveStamps(int fd) {
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
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
