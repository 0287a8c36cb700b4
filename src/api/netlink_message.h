// Routing netlink messages (rtnetlink(7)) as values: the interface watcher's parser, without any
// socket.
//
// All fields are in host byte order; addresses stand as they do in a packet. What is read:
//
// Offset  Size  Field
//      0     4  length of this message, header included
//      4     2  type
//      6    10  flags, sequence number, port (not read)
//     16     4  NLMSG_ERROR: negated errno value
//
// RTM_NEWLINK, RTM_DELLINK                    RTM_NEWADDR, RTM_DELADDR
//     16     1  family                            16     1  family (AF_INET, AF_INET6)
//     20     4  interface index                   20     4  interface index
//     24     4  interface flags                   24     -  attributes
//     32     -  attributes
//
// Attribute: length of itself (2, header included), type (2), payload; the next one begins at a
// multiple of 4.

#ifndef IPSLA_API_NETLINK_MESSAGE_H_
#define IPSLA_API_NETLINK_MESSAGE_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <boost/asio/ip/address.hpp>

namespace ipsla {

/// What a message tells.
enum class NetlinkEvent {
  kIgnored,         ///< nothing the watcher acts on, or too short to say anything
  kTruncated,       ///< the message is longer than what was received: a change was lost
  kError,           ///< `error`
  kLinkChanged,     ///< `index`, `flags`, `name`
  kLinkGone,        ///< `index`
  kAddressAdded,    ///< `index`, `addresses`
  kAddressRemoved,  ///< `index`, `addresses`
};

/// One message, as far as it concerns us. Indexes and flags as in netdevice(7).
struct NetlinkMessage {
  NetlinkEvent event = NetlinkEvent::kIgnored;
  int error = 0;  ///< errno value, positive; 0 is an acknowledgement
  std::uint32_t index = 0;
  std::uint32_t flags = 0;
  std::optional<std::string> name;  ///< of the link, when the message names it
  std::vector<boost::asio::ip::address>
      addresses{};  ///< the local addresses, unspecified ones left out
};

/// Reads the first message of a datagram
/// (kept-behaviours.md#only-the-first-message-of-a-netlink-datagram-is-read). Nothing is read
/// beyond `received`: an attribute that does not fit ends the walk.
[[nodiscard]] NetlinkMessage ParseNetlinkMessage(std::span<const std::uint8_t> received);

}  // namespace ipsla

#endif  // IPSLA_API_NETLINK_MESSAGE_H_
