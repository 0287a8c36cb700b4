#include "responder/udp_socket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "env/packet_stamps.h"
#include "env/socket_options.h"
#include "env/time_values.h"

namespace ipsla::responder {

namespace {

// Probes of several senders may arrive together: room for that many.
constexpr std::size_t kReservedDatagrams = 1024;
constexpr std::size_t kTypicalBytes = 1500;

// Enough for whatever either kind of socket is told with a datagram.
constexpr std::size_t kControlSpace = CMSG_SPACE(sizeof(in_pktinfo)) +
                                      CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(int)) +
                                      CMSG_SPACE(sizeof(std::uint32_t));

// One buffer and one control block around a message.
struct Message {
  Message(void* data, std::size_t size, sockaddr_in* peer) {
    vector.iov_base = data;
    vector.iov_len = size;
    header.msg_name = peer;
    header.msg_namelen = sizeof *peer;
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
  }

  // Makes one item of ancillary data the whole of it.
  template <class Value>
  void SetDetail(int level, int type, const Value& value) {
    header.msg_controllen = CMSG_SPACE(sizeof value);
    cmsghdr* part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = level;
    part->cmsg_type = type;
    part->cmsg_len = CMSG_LEN(sizeof value);
    std::memcpy(CMSG_DATA(part), &value, sizeof value);
  }

  // Calls `take` with each item of ancillary data.
  template <class Taker>
  void ForEachDetail(Taker take) {
    for (const cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr;
         part = CMSG_NXTHDR(&header, const_cast<cmsghdr*>(part))) {
      take(*part);
    }
  }

  iovec vector{};
  msghdr header{};
  alignas(
      cmsghdr) std::array<char, kControlSpace> control;  // the kernel says how much of it is set
};

// True when `part` is of this kind; `value` then gets what it holds.
template <class Value>
bool Read(const cmsghdr& part, int level, int type, Value* value) {
  if (part.cmsg_level != level || part.cmsg_type != type) return false;
  if (part.cmsg_len < CMSG_LEN(sizeof *value)) return false;
  std::memcpy(value, CMSG_DATA(&part), sizeof *value);
  return true;
}

// The number of bytes, negative on an error.
ssize_t Receive(int fd, Message* message) {
  ssize_t received = 0;
  do {
    received = recvmsg(fd, &message->header, MSG_DONTWAIT);
  } while (received < 0 && errno == EINTR);
  return received;
}

bool Send(int fd, const Message& message) {
  return sendmsg(fd, &message.header, MSG_DONTWAIT | MSG_NOSIGNAL) ==
         static_cast<ssize_t>(message.vector.iov_len);
}

}  // namespace

Descriptor OpenUdpSocket(const Endpoint& local, int* error) {
  *error = 0;
  Descriptor socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_in address = ToSockaddr(local);
  if (!socket_fd ||
      bind(socket_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    *error = errno;
    return {};
  }
  EnableReceiveStamps(socket_fd.Get());
  ReserveReceiveBuffer(socket_fd.Get(), kReservedDatagrams, kTypicalBytes);
  return socket_fd;
}

void EnableArrivalAddress(int fd) {
  const int on = 1;
  SetSockOpt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on, "IP_PKTINFO");
}

void EnableProbeDetails(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_IP, IP_RECVTOS, &on, sizeof on);
  setsockopt(fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
}

std::optional<ReceivedRequest> ReceiveRequest(int fd, std::span<std::uint8_t> buffer) {
  ReceivedRequest request;
  Message message(buffer.data(), buffer.size(), &request.source);
  const ssize_t received = Receive(fd, &message);
  if (received < 0) return std::nullopt;
  request.bytes = static_cast<std::size_t>(received);
  message.ForEachDetail([&request](const cmsghdr& part) {
    in_pktinfo info{};
    if (Read(part, IPPROTO_IP, IP_PKTINFO, &info)) request.local = info.ipi_spec_dst;
  });
  return request;
}

bool SendAnswer(int fd, const ReceivedRequest& request, std::span<const std::uint8_t> answer) {
  sockaddr_in peer = request.source;
  // sendmsg takes what it only reads as a pointer to non-const.
  Message message(const_cast<std::uint8_t*>(answer.data()), answer.size(), &peer);
  in_pktinfo info{};
  info.ipi_spec_dst = request.local;
  message.SetDetail(IPPROTO_IP, IP_PKTINFO, info);
  return Send(fd, message);
}

std::optional<ReceivedProbe> ReceiveProbe(int fd, std::span<std::uint8_t> buffer) {
  ReceivedProbe probe;
  Message message(buffer.data(), buffer.size(), &probe.source);
  const ssize_t received = Receive(fd, &message);
  if (received < 0) return std::nullopt;
  probe.bytes = static_cast<std::size_t>(received);
  bool stamped = false;
  message.ForEachDetail([&probe, &stamped](const cmsghdr& part) {
    stamped = Read(part, SOL_SOCKET, SCM_TIMESTAMPNS, &probe.arrival) || stamped;
    Read(part, IPPROTO_IP, IP_TOS, &probe.type_of_service);
    Read(part, SOL_SOCKET, SO_RXQ_OVFL, &probe.dropped);
  });
  if (!stamped) probe.arrival = RealTimeNow();
  return probe;
}

bool SendReply(int fd, const sockaddr_in& peer, std::span<std::uint8_t> reply, std::uint8_t dscp) {
  sockaddr_in to = peer;
  Message message(reply.data(), reply.size(), &to);
  if (dscp == 0) {
    message.header.msg_control = nullptr;
    message.header.msg_controllen = 0;
  } else {
    message.SetDetail(IPPROTO_IP, IP_TOS, static_cast<int>(dscp));
  }
  return Send(fd, message);
}

}  // namespace ipsla::responder
