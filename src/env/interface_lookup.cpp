#include "env/interface_lookup.h"

#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <optional>

#include "env/descriptor.h"
#include "env/namespace_scope.h"
#include "env/network_namespace.h"
#include "log/log.h"

namespace ipsla {
namespace {

// Asks the kernel in the namespace of the calling thread. False when there is no socket to ask
// through.
bool LookUp(InterfaceAddress* interface) {
  const Descriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    LOG_DEBUG(0, "socket failed: %s", std::strerror(errno));
    return false;
  }
  interface->index = if_nametoindex(interface->name.c_str());
  ifreq request{};
  interface->name.copy(request.ifr_name, IFNAMSIZ - 1);
  // kept-behaviours.md#text-that-is-no-address-is-0000
  ioctl(fd.Get(), SIOCGIFADDR, &request);
  static_assert(sizeof interface->address == sizeof request.ifr_addr);
  std::memcpy(&interface->address, &request.ifr_addr, sizeof request.ifr_addr);
  return true;
}

void LogException(const std::exception& error) {
  LOG_DEBUG(0, "Catch exception %s", error.what());
}

// Enters `vrf`. When that fails the lookup goes on outside, and the status tells the caller that
// its result is worth nothing.
void Enter(const std::string& vrf, std::optional<NetworkNamespaceScope>* scope,
           std::int32_t* status) {
  try {
    scope->emplace(vrf);
  } catch (const std::exception& error) {
    LogException(error);
    *status = kInterfaceEnvironmentFailed;
  }
}

void Leave(std::optional<NetworkNamespaceScope>* scope, std::int32_t* status) {
  try {
    if (*scope) {
      (*scope)->Leave();
    } else {
      SetNetworkNamespace(
          kDefaultVrf);  // never entered: confirms that the daemon's own namespace is registered
    }
  } catch (const std::exception& error) {
    LogException(error);
    *status = kInterfaceEnvironmentFailed;
  }
}

}  // namespace

InterfaceAddress GetIfaceData(const std::string& vrf, const std::string& name,
                              std::int32_t* status) {
  *status = kInterfaceFound;
  if (name.empty()) {
    LOG_DEBUG(0, "GetIfaceData failed: invalid task config");
    *status = kInterfaceNotConfigured;
    return {};
  }
  InterfaceAddress interface;
  interface.name = name;
  std::optional<NetworkNamespaceScope> scope;
  if (!vrf.empty()) Enter(vrf, &scope, status);
  if (!LookUp(&interface)) *status = kInterfaceEnvironmentFailed;
  if (!vrf.empty()) Leave(&scope, status);
  return interface;
}

}  // namespace ipsla
