// VRFs: a VRF is a network namespace registered below "/var/run/netns/" (ip-netns(8)).

#ifndef IPSLA_ENV_NETWORK_NAMESPACE_H_
#define IPSLA_ENV_NETWORK_NAMESPACE_H_

#include <string>

namespace ipsla {

/// The name under which the daemon's own network namespace is registered (see ip-netns(8)), and the
/// key under which tables hold the VRF of a task that names none.
inline constexpr const char* kDefaultVrf = "1";

/// `vrf`, or "1" when it is empty: the key of that VRF in every table.
[[nodiscard]] std::string VrfKey(const std::string& vrf);

/// Enters, on the calling thread alone, the namespace registered as `name` below "/var/run/netns/"
/// (setns(2)). Throws std::runtime_error. Prefer NetworkNamespaceScope: a thread must never be left
/// in a VRF.
void SetNetworkNamespace(const std::string& name);

}  // namespace ipsla

#endif  // IPSLA_ENV_NETWORK_NAMESPACE_H_
