#include "api/interface_query.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>

#include "env/descriptor.h"

namespace ipsla {
namespace {

std::optional<boost::asio::ip::address> AddressOf(const sockaddr* address) {
  if (address == nullptr) return std::nullopt;
  if (address->sa_family == AF_INET) {
    sockaddr_in v4{};
    std::memcpy(&v4, address, sizeof v4);
    return boost::asio::ip::address_v4(ntohl(v4.sin_addr.s_addr));
  }
  if (address->sa_family == AF_INET6) {
    sockaddr_in6 v6{};
    std::memcpy(&v6, address, sizeof v6);
    boost::asio::ip::address_v6::bytes_type bytes{};
    std::memcpy(bytes.data(), &v6.sin6_addr, bytes.size());
    return boost::asio::ip::address_v6(bytes, v6.sin6_scope_id);
  }
  return std::nullopt;
}

// An address with a label ("eth0:1") comes under that; no socket can be bound to it.
std::string NameIn(const std::string& label) {
  return label.substr(0, label.find(':'));
}

}  // namespace

InterfaceListing ListInterfaces() {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) throw std::runtime_error("Can't get interfaces info");
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, freeifaddrs);
  InterfaceListing listing;
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
    const std::string name = NameIn(entry->ifa_name);
    const std::uint32_t index = if_nametoindex(name.c_str());
    if (index != 0) listing.links[index] = name;
    const auto address = AddressOf(entry->ifa_addr);
    if (!address || address->is_unspecified()) continue;
    const InterfaceRecord record{static_cast<std::int32_t>(entry->ifa_flags),
                                 static_cast<std::int32_t>(index), name};
    listing.addresses[*address] = record;
    listing.holders[*address][record.index] = record;
  }
  return listing;
}

InterfaceRecord QueryInterface(std::uint32_t index) {
  InterfaceRecord record;
  record.index = static_cast<std::int32_t>(index);
  std::array<char, IF_NAMESIZE> name{};
  if (if_indextoname(index, name.data()) == nullptr) return record;
  record.name = name.data();
  const Descriptor socket_to_ask(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket_to_ask) return record;
  ifreq request{};
  std::memcpy(request.ifr_name, name.data(), name.size());
  if (ioctl(socket_to_ask.Get(), SIOCGIFFLAGS, &request) == 0) {
    record.flags = static_cast<std::uint16_t>(request.ifr_flags);
  }
  return record;
}

}  // namespace ipsla
