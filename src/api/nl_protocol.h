// Routing netlink as a protocol of the io library.

#ifndef IPSLA_API_NL_PROTOCOL_H_
#define IPSLA_API_NL_PROTOCOL_H_

#include <linux/netlink.h>
#include <sys/socket.h>

#include <boost/asio/basic_raw_socket.hpp>
#include <boost/asio/generic/basic_endpoint.hpp>

namespace ipsla {

/// Raw sockets of the family AF_NETLINK, protocol NETLINK_ROUTE. An endpoint holds a sockaddr_nl.
class nl_protocol {
 public:
  /// What Asio asks a protocol for.
  using endpoint = boost::asio::generic::basic_endpoint<nl_protocol>;
  using socket = boost::asio::basic_raw_socket<nl_protocol>;

  nl_protocol() = default;
  /// What an endpoint makes of its address; there is only this one protocol.
  nl_protocol(int /*family*/, int /*protocol*/) {}

  [[nodiscard]] static int type() { return SOCK_RAW; }
  [[nodiscard]] static int protocol() { return NETLINK_ROUTE; }
  [[nodiscard]] static int family() { return AF_NETLINK; }
};

}  // namespace ipsla

#endif  // IPSLA_API_NL_PROTOCOL_H_
