// Bytes written as hexadecimal text, for golden-byte tests.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_BYTES_H_
#define IPSLA_TESTS_UNIT_SUPPORT_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ipsla::test {

/// The bytes of `hex`; blanks between digits are ignored.
inline std::vector<std::uint8_t> FromHex(std::string_view hex) {
  std::string digits;
  for (const char c : hex) {
    if (c != ' ' && c != '\n') digits.push_back(c);
  }
  std::vector<std::uint8_t> bytes;
  for (std::size_t at = 0; at + 1 < digits.size(); at += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

/// Two lower-case digits per byte, written independently of the product's own encoder.
inline std::string ToHex(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const unsigned byte : bytes) {
    for (const unsigned nibble : {byte / 16, byte % 16}) {
      text.push_back(static_cast<char>(nibble < 10 ? '0' + nibble : 'a' + nibble - 10));
    }
  }
  return text;
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_BYTES_H_
