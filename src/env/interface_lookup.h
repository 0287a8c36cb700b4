// Index and IPv4 address of a source interface that a task names.

#ifndef IPSLA_ENV_INTERFACE_LOOKUP_H_
#define IPSLA_ENV_INTERFACE_LOOKUP_H_

#include <netinet/in.h>

#include <cstdint>
#include <string>

namespace ipsla {

/// What GetIfaceData found out about a source interface.
struct InterfaceAddress {
  sockaddr_in address{};    ///< its IPv4 address, all zero when it has none
  std::uint32_t index = 0;  ///< if_nametoindex(3); 0: no such interface, or nothing looked up
  std::string name;         ///< the configured name
};

/// Status values of GetIfaceData.
enum : std::int32_t {
  kInterfaceFound = 0,
  kInterfaceEnvironmentFailed = 1,
  kInterfaceNotConfigured = 2
};

/// Looks up the interface `name` inside `vrf` (empty: the daemon's namespace). Never throws.
/// `status`: 0 the lookup ran (an unknown interface gives index 0 and a zero address), 1 the
/// environment failed (logged), 2 there is no name to look up (logged).
[[nodiscard]] InterfaceAddress GetIfaceData(const std::string& vrf, const std::string& name,
                                            std::int32_t* status);

}  // namespace ipsla

#endif  // IPSLA_ENV_INTERFACE_LOOKUP_H_
