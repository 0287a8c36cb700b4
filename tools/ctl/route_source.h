// Who is a name, and from which address would it be reached?

#ifndef IPSLA_TOOLS_CTL_ROUTE_SOURCE_H_
#define IPSLA_TOOLS_CTL_ROUTE_SOURCE_H_

#include <string>

namespace ipsla::ctl {

/// Both ends of a route, as dotted text.
struct RouteEnds {
  std::string source, destination;
  std::string fault{};  ///< why one of them is not known; empty: both are
};

/// Resolves `host` (a name or an IPv4 address) and asks the routes for the source address, both in
/// the network namespace of a VRF (empty: this process's). With a `source` only the name is
/// resolved, and nothing at all with an address.
[[nodiscard]] RouteEnds FindRoute(const std::string& host, const std::string& source,
                                  const std::string& vrf);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_ROUTE_SOURCE_H_
