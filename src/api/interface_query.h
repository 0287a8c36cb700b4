// The kernel's answers about interfaces, asked inside a VRF.

#ifndef IPSLA_API_INTERFACE_QUERY_H_
#define IPSLA_API_INTERFACE_QUERY_H_

#include <cstdint>
#include <map>
#include <string>

#include <boost/asio/ip/address.hpp>

#include "sender/interface_table.h"

namespace ipsla {

/// The interfaces of each address, by their indexes: an address can be on several.
using AddressHolders = std::map<boost::asio::ip::address, std::map<std::int32_t, InterfaceRecord>>;

/// What getifaddrs(3) says of the namespace of the calling thread.
struct InterfaceListing {
  std::map<boost::asio::ip::address, InterfaceRecord>
      addresses;           ///< IPv4 and IPv6, unspecified ones left out; of several the last one
  AddressHolders holders;  ///< of the same addresses
  std::map<std::uint32_t, std::string> links;  ///< every interface, also those without an address
};

/// Lists the namespace of the calling thread. Throws std::runtime_error "Can't get interfaces
/// info".
[[nodiscard]] InterfaceListing ListInterfaces();

/// The interface with this index in the namespace of the calling thread; name empty and flags 0 as
/// far as the kernel does not tell (there is no such interface, or no descriptor to ask through).
[[nodiscard]] InterfaceRecord QueryInterface(std::uint32_t index);

}  // namespace ipsla

#endif  // IPSLA_API_INTERFACE_QUERY_H_
