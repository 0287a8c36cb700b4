#include "ctl/route_source.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include <fmt/format.h>

#include "config/task_config.h"
#include "ctl/namespace_thread.h"

namespace ipsla::ctl {
namespace {

/// The address of a host; why there is none.
std::string ResolveHost(const std::string& host, sockaddr_in* address) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* first = nullptr;
  if (const int fault = getaddrinfo(host.c_str(), nullptr, &hints, &first); fault != 0) {
    return fmt::format("{} has no IPv4 address: {}", host, gai_strerror(fault));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(first, freeaddrinfo);
  std::memcpy(address, first->ai_addr, sizeof *address);
  return "";
}

/// The local address that the kernel would send from; why there is none. Sends nothing.
std::string AskRoute(sockaddr_in destination, sockaddr_in* source) {
  constexpr in_port_t kAnyPort = 9;
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  destination.sin_port = htons(kAnyPort);
  socklen_t size = sizeof *source;
  const auto* peer = reinterpret_cast<const sockaddr*>(&destination);
  const bool found = fd >= 0 && connect(fd, peer, sizeof destination) == 0 &&
                     getsockname(fd, reinterpret_cast<sockaddr*>(source), &size) == 0;
  const int error = errno;
  if (fd >= 0) {
    close(fd);
  }
  return found ? ""
               : fmt::format("no source address reaches {}: {}", Ipv4ToString(destination.sin_addr),
                             std::strerror(error));
}

}  // namespace

RouteEnds FindRoute(const std::string& host, const std::string& source, const std::string& vrf) {
  RouteEnds ends{.source = source, .destination = host};
  sockaddr_in destination{};
  destination.sin_family = AF_INET;
  const bool is_address = inet_pton(AF_INET, host.c_str(), &destination.sin_addr) == 1;
  in_addr given{};
  if (!source.empty() && inet_pton(AF_INET, source.c_str(), &given) != 1) {
    ends.fault = source + " is no IPv4 address";
  }
  if (!ends.fault.empty() || (is_address && !source.empty())) {
    return ends;
  }
  const auto fault = InNamespace(vrf.empty() ? "" : kNamespaceDirectory + vrf, [&] {
    if (!is_address) {
      ends.fault = ResolveHost(host, &destination);
    }
    if (!ends.fault.empty()) {
      return;
    }
    ends.destination = Ipv4ToString(destination.sin_addr);
    sockaddr_in local{};
    if (source.empty()) {
      ends.fault = AskRoute(destination, &local);
      ends.source = Ipv4ToString(local.sin_addr);
    }
  });
  if (fault) {
    ends.fault = *fault;
  }
  return ends;
}

}  // namespace ipsla::ctl
