#include "env/packet_stamps.h"

#include <linux/errqueue.h>
#include <linux/net_tstamp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "env/time_values.h"

namespace ipsla {
namespace {

// Room for the stamps in both forms and for one queued error with the address that it came from.
constexpr std::size_t kControlBytes = CMSG_SPACE(sizeof(timespec)) +
                                      CMSG_SPACE(sizeof(scm_timestamping)) +
                                      CMSG_SPACE(sizeof(sock_extended_err) + sizeof(sockaddr_in));

using ControlBuffer = std::array<unsigned char, kControlBytes>;

template <typename Value>
Value ControlValue(cmsghdr* item) {
  Value value{};
  std::memcpy(&value, CMSG_DATA(item), sizeof value);
  return value;
}

// The software stamp of a message, in either form, or nothing.
std::optional<timespec> StampOf(cmsghdr* item) {
  if (item->cmsg_level != SOL_SOCKET) return std::nullopt;
  if (item->cmsg_type == SCM_TIMESTAMPNS) return ControlValue<timespec>(item);
  if (item->cmsg_type != SCM_TIMESTAMPING) return std::nullopt;
  const timespec stamp = ControlValue<scm_timestamping>(item).ts[0];
  if (stamp.tv_sec == 0 && stamp.tv_nsec == 0) return std::nullopt;
  return stamp;
}

bool IsQueuedError(const cmsghdr* item) {
  return item->cmsg_level == SOL_IP && item->cmsg_type == IP_RECVERR;
}

// recvmsg(2), repeated after signals.
ssize_t Receive(int fd, msghdr* message, ControlBuffer* control, int flags) {
  ssize_t received = -1;
  do {
    message->msg_control = control->data();
    message->msg_controllen = control->size();
    received = recvmsg(fd, message, MSG_DONTWAIT | flags);
  } while (received < 0 && errno == EINTR);
  return received;
}

}  // namespace

void EnableReceiveStamps(int fd) {
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
}

void EnableProbeStamps(int fd) {
  // The numbering starts anew only when it was switched off before.
  const unsigned receive = SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
  setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPING, &receive, sizeof receive);
  const unsigned both = receive | SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_OPT_ID |
                        SOF_TIMESTAMPING_OPT_TSONLY;
  setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPING, &both, sizeof both);
}

std::optional<TransmitStamp> TakeTransmitStamp(int fd) {
  alignas(cmsghdr) ControlBuffer control{};
  for (msghdr message{}; Receive(fd, &message, &control, MSG_ERRQUEUE) >= 0; message = {}) {
    std::optional<timespec> departure;
    std::optional<std::uint32_t> number;
    for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
         item = CMSG_NXTHDR(&message, item)) {
      if (IsQueuedError(item)) {
        const auto error = ControlValue<sock_extended_err>(item);
        if (error.ee_origin == SO_EE_ORIGIN_TIMESTAMPING) number = error.ee_data;
      } else if (const auto stamp = StampOf(item)) {
        departure = stamp;
      }
    }
    if (number && departure) return TransmitStamp{*number, *departure};
  }
  return std::nullopt;
}

std::optional<StampedDatagram> ReceiveStamped(int fd, void* buffer, std::size_t size, int* error) {
  StampedDatagram datagram;
  datagram.buffer = {static_cast<const std::uint8_t*>(buffer), size};
  iovec vector{buffer, size};
  alignas(cmsghdr) ControlBuffer control{};
  msghdr message{};
  message.msg_name = &datagram.source;
  message.msg_namelen = sizeof datagram.source;
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  const ssize_t received = Receive(fd, &message, &control, 0);
  if (received < 0) {
    *error = errno;
    return std::nullopt;
  }
  *error = 0;
  datagram.bytes = static_cast<std::size_t>(received);
  std::optional<timespec> arrival;
  for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr && !arrival;
       item = CMSG_NXTHDR(&message, item)) {
    arrival = StampOf(item);
  }
  datagram.arrival = arrival ? *arrival : RealTimeNow();
  return datagram;
}

}  // namespace ipsla
