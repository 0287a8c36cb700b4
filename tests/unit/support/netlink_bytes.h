// Routing netlink messages as bytes, built by hand.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_NETLINK_BYTES_H_
#define IPSLA_TESTS_UNIT_SUPPORT_NETLINK_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ipsla::test {

using Bytes = std::vector<std::uint8_t>;

// Message and attribute types, by number: rtnetlink(7), linux/if_addr.h.
inline constexpr std::uint16_t kNewLink = 16;
inline constexpr std::uint16_t kDelLink = 17;
inline constexpr std::uint16_t kNewAddr = 20;
inline constexpr std::uint16_t kDelAddr = 21;
inline constexpr std::uint16_t kIfaAddress = 1;
inline constexpr std::uint16_t kIfaLocal = 2;

/// Appends an integer as the machine stores it.
template <typename Integer>
void Append(Bytes* bytes, Integer value) {
  const auto* first = reinterpret_cast<const std::uint8_t*>(&value);
  bytes->insert(bytes->end(), first, first + sizeof value);
}

/// One attribute, padded to a multiple of 4.
inline Bytes Attribute(std::uint16_t type, const Bytes& payload) {
  Bytes bytes;
  Append(&bytes, static_cast<std::uint16_t>(4 + payload.size()));
  Append(&bytes, type);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  bytes.resize((bytes.size() + 3) / 4 * 4);
  return bytes;
}

inline Bytes NameAttribute(const std::string& name) {
  Bytes payload(name.begin(), name.end());
  payload.push_back(0);
  return Attribute(3, payload);
}

/// A whole message with this body; the length field counts the body.
inline Bytes Message(std::uint16_t type, const Bytes& body) {
  Bytes bytes;
  Append(&bytes, static_cast<std::uint32_t>(16 + body.size()));
  Append(&bytes, type);
  bytes.resize(16);
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

inline Bytes LinkMessage(std::uint16_t type, std::int32_t index, std::uint32_t flags,
                         const Bytes& attributes, std::uint8_t family = 0) {
  Bytes body{family, 0, 0, 0};
  Append(&body, index);
  Append(&body, flags);
  Append(&body, std::uint32_t{0xFFFFFFFF});
  body.insert(body.end(), attributes.begin(), attributes.end());
  return Message(type, body);
}

inline Bytes AddressMessage(std::uint16_t type, std::uint8_t family, std::uint32_t index,
                            const Bytes& attributes) {
  Bytes body{family, 24, 0, 0};
  Append(&body, index);
  body.insert(body.end(), attributes.begin(), attributes.end());
  return Message(type, body);
}

inline Bytes ErrorMessage(std::int32_t negated_errno) {
  Bytes body;
  Append(&body, negated_errno);
  body.resize(20);
  return Message(2, body);
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_NETLINK_BYTES_H_
