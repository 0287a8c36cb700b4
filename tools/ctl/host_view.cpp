#include "ctl/host_view.h"

#include <ifaddrs.h>
#include <linux/magic.h>
#include <net/if.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <fmt/format.h>

#include "ctl/namespace_thread.h"

namespace ipsla::ctl {
namespace {

constexpr const char* kReturnName = "1";
constexpr const char* kThisNamespace = "/proc/self/ns/net";

std::string SystemFault(const std::string& what) {
  return fmt::format("{}: {}", what, std::strerror(errno));
}

/// Puts an interface's address where it belongs.
void TakeAddress(const ifaddrs& entry, std::vector<HostInterface>* interfaces) {
  auto found = std::ranges::find(*interfaces, entry.ifa_name, &HostInterface::name);
  if (found == interfaces->end()) {
    interfaces->push_back({.name = entry.ifa_name});
    found = interfaces->end() - 1;
  }
  const auto address_in = [](const sockaddr* address) {
    sockaddr_in inet{};
    std::memcpy(&inet, address, sizeof inet);
    return inet.sin_addr;
  };
  if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) {
    return;
  }
  found->addresses.push_back(address_in(entry.ifa_addr));
  if ((entry.ifa_flags & IFF_BROADCAST) != 0U && entry.ifa_broadaddr != nullptr) {
    found->broadcasts.push_back(address_in(entry.ifa_broadaddr));
  }
}

/// The interfaces of the calling thread's namespace.
HostInterfaces ListInterfaces() {
  HostInterfaces result;
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) {
    result.fault = SystemFault("getifaddrs");
    return result;
  }
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, freeifaddrs);
  result.found.emplace();
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
    TakeAddress(*entry, &*result.found);
  }
  return result;
}

HostInterfaces ListInterfacesOf(const std::string& file) {
  HostInterfaces result;
  const auto fault = InNamespace(file, [&result] { result = ListInterfaces(); });
  if (fault) {
    result.fault = *fault;
  }
  return result;
}

}  // namespace

SystemHost::SystemHost(int daemon_pid)
    : own_namespace_(daemon_pid == 0 ? "" : fmt::format("/proc/{}/ns/net", daemon_pid)) {}

std::string SystemHost::VrfFault(const std::string& vrf) {
  const std::string file = kNamespaceDirectory + vrf;
  struct statfs system {};
  if (statfs(file.c_str(), &system) != 0) {
    return SystemFault(file);
  }
  return system.f_type == NSFS_MAGIC ? "" : file + " is no namespace";
}

std::string SystemHost::OwnNamespace() const {
  return own_namespace_.empty() ? kThisNamespace : own_namespace_;
}

std::string SystemHost::ReturnFault() {
  if (std::string fault = VrfFault(kReturnName); !fault.empty()) {
    return fault;
  }
  const std::string file = std::string(kNamespaceDirectory) + kReturnName;
  struct stat registered {};
  struct stat own {};
  // What may not be looked at is not held against the file.
  if (stat(file.c_str(), &registered) != 0 || stat(OwnNamespace().c_str(), &own) != 0) {
    return "";
  }
  const bool same = registered.st_ino == own.st_ino && registered.st_dev == own.st_dev;
  const char* owner = own_namespace_.empty() ? "in which this check runs" : "of the daemon";
  return same ? "" : fmt::format("{} is not the network namespace {}", file, owner);
}

const HostInterfaces& SystemHost::Interfaces(const std::string& vrf) {
  const auto known = interfaces_.find(vrf);
  if (known != interfaces_.end()) {
    return known->second;
  }
  return interfaces_[vrf] =
             ListInterfacesOf(vrf.empty() ? own_namespace_ : kNamespaceDirectory + vrf);
}

bool SystemHost::HasCpu(std::uint8_t cpu) {
  bool bound = false;
  OnOwnThread([&] {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    bound = sched_setaffinity(0, sizeof set, &set) == 0;
  });
  return bound;
}

}  // namespace ipsla::ctl
