#include "responder/local_addresses.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "env/time_values.h"

namespace ipsla::responder {

namespace {

constexpr std::int64_t kLongestAge = kNanosecondsPerSecond;

Descriptor OpenAddressChanges() {
  Descriptor socket_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_IPV4_IFADDR;
  if (!socket_fd ||
      bind(socket_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  return socket_fd;
}

bool IsLoopback(std::uint32_t address) {
  return address >> 24U == 127;
}

}  // namespace

LocalAddresses::LocalAddresses() : changes_(OpenAddressChanges()) {}

bool LocalAddresses::Contains(in_addr address, std::int64_t now) {
  // A change may have come after the loop looked for one.
  NoteChanges();
  if (!changes_ && now - read_at_ >= kLongestAge) fresh_ = false;
  if (!fresh_) {
    Read();
    read_at_ = now;
  }
  if (!fresh_) return true;
  const std::uint32_t wanted = ntohl(address.s_addr);
  return addresses_.contains(wanted) || (loopback_ && IsLoopback(wanted));
}

void LocalAddresses::NoteChanges() {
  if (!changes_) return;
  // What the messages say does not matter: that there are any, or that some were lost, does.
  std::array<char, 4096> message{};
  while (true) {
    const ssize_t received = recv(changes_.Get(), message.data(), message.size(), MSG_DONTWAIT);
    if (received < 0 && errno == EINTR) continue;
    if (received < 0 && errno != ENOBUFS) return;
    fresh_ = false;
  }
}

void LocalAddresses::Read() {
  ++reads_;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
  addresses_.clear();
  loopback_ = false;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in own{};
    std::memcpy(&own, entry->ifa_addr, sizeof own);
    const std::uint32_t address = ntohl(own.sin_addr.s_addr);
    loopback_ = loopback_ || IsLoopback(address);
    addresses_.insert(address);
  }
  fresh_ = true;
}

}  // namespace ipsla::responder
