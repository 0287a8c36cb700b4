// Every truncation and every single-byte change of a message or a file.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_MUTATIONS_H_
#define IPSLA_TESTS_UNIT_SUPPORT_MUTATIONS_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

namespace ipsla::test {

/// Calls `check(bytes)` for every beginning of `whole`, the empty one first. Each is a heap block
/// of its exact size: a read beyond it is seen by the address sanitizer.
template <typename Check>
void ForEachTruncation(std::span<const std::uint8_t> whole, const Check& check) {
  for (std::size_t size = 0; size < whole.size(); ++size) {
    check(std::vector<std::uint8_t>(whole.begin(), whole.begin() + static_cast<long>(size)));
  }
}

/// Calls `check(bytes, offset)` for every other value of every byte.
template <typename Check>
void ForEachChange(std::span<const std::uint8_t> whole, const Check& check) {
  std::vector<std::uint8_t> bytes(whole.begin(), whole.end());
  for (std::size_t offset = 0; offset < whole.size(); ++offset) {
    for (unsigned step = 1; step < 256; ++step) {
      bytes[offset] = static_cast<std::uint8_t>(whole[offset] + step);
      check(bytes, offset);
    }
    bytes[offset] = whole[offset];
  }
}

/// What is put in place of a byte of a text: whatever has a meaning in JSON, and what has none.
inline constexpr std::string_view kTellingBytes("\0\"\\{}[],: 0-9.eEu/tfn#\n\x1f\x7f\x80\xc3\xff",
                                                29);

inline constexpr std::size_t kTellingAtOnePlace = 5;

/// Likewise for a text, which is long: some of the telling bytes, others at each place, and the
/// byte's neighbours. With IPSLA_EVERY_CHANGE in the environment every other value.
template <typename Check>
void ForEachTextChange(std::string_view whole, const Check& check) {
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(whole.data()), whole.size());
  if (std::getenv("IPSLA_EVERY_CHANGE") != nullptr) {
    ForEachChange(bytes, check);
    return;
  }
  std::vector<std::uint8_t> changed(bytes.begin(), bytes.end());
  for (std::size_t offset = 0; offset < bytes.size(); ++offset) {
    const auto put = [&](std::uint8_t byte) {
      if (byte == bytes[offset]) return;
      changed[offset] = byte;
      check(changed, offset);
    };
    for (std::size_t count = 0; count < kTellingAtOnePlace; ++count) {
      const std::size_t next = offset * kTellingAtOnePlace + count;
      put(static_cast<std::uint8_t>(kTellingBytes[next % kTellingBytes.size()]));
    }
    put(static_cast<std::uint8_t>(bytes[offset] + 1));
    put(static_cast<std::uint8_t>(bytes[offset] ^ 0x20U));
    changed[offset] = bytes[offset];
  }
}

/// A big-endian number of so many bytes as it stands in a message; bytes beyond it read as zero.
inline std::uint64_t BigEndianAt(std::span<const std::uint8_t> bytes, std::size_t offset,
                                 std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t at = offset; at < offset + size; ++at) {
    value = value << 8U | (at < bytes.size() ? bytes[at] : 0U);
  }
  return value;
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_MUTATIONS_H_
