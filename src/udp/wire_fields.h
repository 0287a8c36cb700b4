// Big-endian fields of UDP payloads at fixed offsets. Of a field that lies partly or wholly
// outside, the missing bytes read as zero; written it is not.

#ifndef IPSLA_UDP_WIRE_FIELDS_H_
#define IPSLA_UDP_WIRE_FIELDS_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include <boost/endian/conversion.hpp>

namespace ipsla::wire {

/// `Size` bytes from `offset` on, missing ones as zero.
template <std::size_t Size>
[[nodiscard]] std::array<std::uint8_t, Size> LoadBytes(std::span<const std::uint8_t> bytes,
                                                       std::size_t offset) {
  std::array<std::uint8_t, Size> field{};
  if (offset < bytes.size()) {
    const auto present = bytes.subspan(offset, std::min(Size, bytes.size() - offset));
    std::copy(present.begin(), present.end(), field.begin());
  }
  return field;
}

/// The unsigned integer at `offset`; bytes that are missing read as zero.
[[nodiscard]] inline std::uint8_t LoadU8(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return LoadBytes<1>(bytes, offset)[0];
}

/// Likewise, two bytes.
[[nodiscard]] inline std::uint16_t LoadU16(std::span<const std::uint8_t> bytes,
                                           std::size_t offset) {
  return boost::endian::load_big_u16(LoadBytes<2>(bytes, offset).data());
}

/// Likewise, four bytes.
[[nodiscard]] inline std::uint32_t LoadU32(std::span<const std::uint8_t> bytes,
                                           std::size_t offset) {
  return boost::endian::load_big_u32(LoadBytes<4>(bytes, offset).data());
}

/// Likewise, eight bytes.
[[nodiscard]] inline std::uint64_t LoadU64(std::span<const std::uint8_t> bytes,
                                           std::size_t offset) {
  return boost::endian::load_big_u64(LoadBytes<8>(bytes, offset).data());
}

/// Puts `field` at `offset` if all of it fits.
template <std::size_t Size>
void StoreBytes(std::span<std::uint8_t> bytes, std::size_t offset,
                const std::array<std::uint8_t, Size>& field) {
  if (offset > bytes.size() || bytes.size() - offset < Size) return;
  std::copy(field.begin(), field.end(), bytes.subspan(offset, Size).begin());
}

/// Puts one byte at `offset` if that lies inside.
inline void StoreU8(std::span<std::uint8_t> bytes, std::size_t offset, std::uint8_t value) {
  StoreBytes<1>(bytes, offset, {value});
}

/// Puts two bytes at `offset` if they all fit.
inline void StoreU16(std::span<std::uint8_t> bytes, std::size_t offset, std::uint16_t value) {
  std::array<std::uint8_t, 2> field{};
  boost::endian::store_big_u16(field.data(), value);
  StoreBytes(bytes, offset, field);
}

/// Likewise, four bytes.
inline void StoreU32(std::span<std::uint8_t> bytes, std::size_t offset, std::uint32_t value) {
  std::array<std::uint8_t, 4> field{};
  boost::endian::store_big_u32(field.data(), value);
  StoreBytes(bytes, offset, field);
}

/// Likewise, eight bytes.
inline void StoreU64(std::span<std::uint8_t> bytes, std::size_t offset, std::uint64_t value) {
  std::array<std::uint8_t, 8> field{};
  boost::endian::store_big_u64(field.data(), value);
  StoreBytes(bytes, offset, field);
}

}  // namespace ipsla::wire

#endif  // IPSLA_UDP_WIRE_FIELDS_H_
