#include "responder/udp_socket.h"

#include <ifaddrs.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "env/packet_stamps.h"
#include "env/socket_options.h"

namespace ipsla::responder {

namespace {

// Probes of several senders may arrive together: room for that many.
constexpr std::size_t kReservedDatagrams = 1024;
constexpr std::size_t kTypicalBytes = 1500;

constexpr std::size_t kInfoSpace = CMSG_SPACE(sizeof(in_pktinfo));

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

  iovec vector{};
  msghdr header{};
  alignas(cmsghdr) std::array<char, kInfoSpace + CMSG_SPACE(sizeof(timespec))> control{};
};

bool IsLoopback(in_addr address) {
  return ntohl(address.s_addr) >> 24U == 127;
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ >= 0) close(fd_);
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

Descriptor OpenUdpSocket(const Endpoint& local, int* error) {
  *error = 0;
  Descriptor socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_in address = ToSockaddr(local);
  if (!socket_fd.IsOpen() ||
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

std::optional<ReceivedRequest> ReceiveRequest(int fd, std::span<std::uint8_t> buffer) {
  ReceivedRequest request;
  Message message(buffer.data(), buffer.size(), &request.source);
  ssize_t received = 0;
  do {
    received = recvmsg(fd, &message.header, MSG_DONTWAIT);
  } while (received < 0 && errno == EINTR);
  if (received < 0) return std::nullopt;
  request.bytes = static_cast<std::size_t>(received);
  for (cmsghdr* part = CMSG_FIRSTHDR(&message.header); part != nullptr;
       part = CMSG_NXTHDR(&message.header, part)) {
    if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_PKTINFO) continue;
    in_pktinfo info{};
    std::memcpy(&info, CMSG_DATA(part), sizeof info);
    request.local = info.ipi_spec_dst;
  }
  return request;
}

bool SendAnswer(int fd, const ReceivedRequest& request, std::span<const std::uint8_t> answer) {
  sockaddr_in peer = request.source;
  // sendmsg takes what it only reads as a pointer to non-const.
  Message message(const_cast<std::uint8_t*>(answer.data()), answer.size(), &peer);
  message.header.msg_controllen = kInfoSpace;
  cmsghdr* part = CMSG_FIRSTHDR(&message.header);
  part->cmsg_level = IPPROTO_IP;
  part->cmsg_type = IP_PKTINFO;
  part->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
  in_pktinfo info{};
  info.ipi_spec_dst = request.local;
  std::memcpy(CMSG_DATA(part), &info, sizeof info);
  return sendmsg(fd, &message.header, MSG_DONTWAIT | MSG_NOSIGNAL) ==
         static_cast<ssize_t>(answer.size());
}

bool IsLocalAddress(in_addr address) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in own{};
    std::memcpy(&own, entry->ifa_addr, sizeof own);
    if (own.sin_addr.s_addr == address.s_addr) return true;
    if (IsLoopback(own.sin_addr) && IsLoopback(address)) return true;
  }
  return false;
}

}  // namespace ipsla::responder
