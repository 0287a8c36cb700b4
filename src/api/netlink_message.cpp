#include "api/netlink_message.h"

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>

#include <boost/endian/conversion.hpp>

namespace ipsla {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kHeaderSize = 16;
constexpr std::size_t kErrorSize = 4;
constexpr std::size_t kLinkSize = 16;
constexpr std::size_t kAddressSize = 8;
constexpr std::size_t kAttributeHeaderSize = 4;

template <typename Integer>
Integer Load(Bytes bytes, std::size_t offset) {
  return boost::endian::endian_load<Integer, sizeof(Integer), boost::endian::order::native>(
      &bytes[offset]);
}

// Calls visit(type, payload) for each attribute that fits.
template <typename Visitor>
void ForEachAttribute(Bytes attributes, const Visitor& visit) {
  while (attributes.size() >= kAttributeHeaderSize) {
    const std::size_t length = Load<std::uint16_t>(attributes, 0);
    if (length < kAttributeHeaderSize || length > attributes.size()) return;
    const auto type =
        static_cast<std::uint16_t>(Load<std::uint16_t>(attributes, 2) & NLA_TYPE_MASK);
    visit(type, attributes.subspan(kAttributeHeaderSize, length - kAttributeHeaderSize));
    const std::size_t next = (length + 3) & ~std::size_t{3};
    attributes = attributes.subspan(std::min(next, attributes.size()));
  }
}

std::string TextOf(Bytes payload) {
  const auto end = std::find(payload.begin(), payload.end(), std::uint8_t{0});
  return {payload.begin(), end};
}

std::optional<boost::asio::ip::address> AddressOf(std::uint8_t family, std::uint32_t index,
                                                  Bytes payload) {
  if (family == AF_INET && payload.size() >= boost::asio::ip::address_v4::bytes_type{}.size()) {
    boost::asio::ip::address_v4::bytes_type bytes{};
    std::copy_n(payload.begin(), bytes.size(), bytes.begin());
    return boost::asio::ip::address_v4(bytes);
  }
  if (family == AF_INET6 && payload.size() >= boost::asio::ip::address_v6::bytes_type{}.size()) {
    boost::asio::ip::address_v6::bytes_type bytes{};
    std::copy_n(payload.begin(), bytes.size(), bytes.begin());
    boost::asio::ip::address_v6 address(bytes);
    // getifaddrs(3) gives a link-local address the scope of its interface; without it the same
    // address had two keys.
    if (address.is_link_local()) address.scope_id(index);
    return address;
  }
  return std::nullopt;
}

NetlinkMessage ParseError(Bytes body) {
  if (body.size() < kErrorSize) return {};
  NetlinkMessage message;
  message.event = NetlinkEvent::kError;
  // Negated in unsigned arithmetic, where the smallest integer is no special case.
  message.error = static_cast<int>(0U - Load<std::uint32_t>(body, 0));
  return message;
}

NetlinkMessage ParseLink(Bytes body, bool gone) {
  if (body.size() < kLinkSize) return {};
  // A bridge announces a port that leaves it as a deleted link of its own family; the interface
  // itself lives on.
  if (gone && body[0] == AF_BRIDGE) return {};
  NetlinkMessage message;
  message.event = gone ? NetlinkEvent::kLinkGone : NetlinkEvent::kLinkChanged;
  message.index = Load<std::uint32_t>(body, 4);
  message.flags = Load<std::uint32_t>(body, 8);
  ForEachAttribute(body.subspan(kLinkSize), [&message](std::uint16_t type, Bytes payload) {
    if (type == IFLA_IFNAME && !TextOf(payload).empty()) message.name = TextOf(payload);
  });
  return message;
}

NetlinkMessage ParseAddress(Bytes body, NetlinkEvent event) {
  if (body.size() < kAddressSize) return {};
  NetlinkMessage message;
  message.event = event;
  message.index = Load<std::uint32_t>(body, 4);
  ForEachAttribute(body.subspan(kAddressSize),
                   [&message, family = body[0]](std::uint16_t type, Bytes payload) {
                     if (type != IFA_LOCAL) return;
                     const auto address = AddressOf(family, message.index, payload);
                     if (address && !address->is_unspecified()) {
                       message.addresses.push_back(*address);
                     }
                   });
  return message;
}

}  // namespace

NetlinkMessage ParseNetlinkMessage(std::span<const std::uint8_t> received) {
  if (received.size() < kHeaderSize) return {};
  const std::size_t length = Load<std::uint32_t>(received, 0);
  if (length < kHeaderSize) return {};
  if (length > received.size()) {
    NetlinkMessage message;
    message.event = NetlinkEvent::kTruncated;
    return message;
  }
  const Bytes body = received.first(length).subspan(kHeaderSize);
  switch (Load<std::uint16_t>(received, 4)) {
    case NLMSG_ERROR:
      return ParseError(body);
    case RTM_NEWLINK:
      return ParseLink(body, false);
    case RTM_DELLINK:
      return ParseLink(body, true);
    case RTM_NEWADDR:
      return ParseAddress(body, NetlinkEvent::kAddressAdded);
    case RTM_DELADDR:
      return ParseAddress(body, NetlinkEvent::kAddressRemoved);
    default:
      return {};
  }
}

}  // namespace ipsla
