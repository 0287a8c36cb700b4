// Which sequence numbers of a session have been seen, in bounded memory.

#ifndef IPSLA_TOOLS_RESPONDER_SEQUENCE_WINDOW_H_
#define IPSLA_TOOLS_RESPONDER_SEQUENCE_WINDOW_H_

#include <bitset>
#include <cstddef>
#include <cstdint>

namespace ipsla::responder {

/// Remembers the newest kSize numbers up to the highest seen. Numbers below those count as seen: a
/// probe that comes so late would otherwise be counted again with every copy of it.
class SequenceWindow {
 public:
  /// Numbers behind the highest one that are remembered.
  static constexpr std::size_t kSize = 8192;

  /// What a number was.
  enum class Seen { kFirst, kFirstOutOfOrder, kBefore };

  /// Notes one received number and tells whether it is new, and whether a higher one came before
  /// it.
  Seen Note(std::uint64_t sequence);

  /// The highest number so far, 0 before the first.
  [[nodiscard]] std::uint64_t Highest() const { return highest_; }

 private:
  bool empty_ = true;
  std::uint64_t highest_ = 0;
  std::bitset<kSize>
      seen_;  // of the numbers (highest_ - kSize, highest_], each at its remainder modulo kSize
};

/// The whole number behind the low 16 bits of one: the nearest to `highest`, so that a sequence of
/// more than 65535 probes goes on counting.
[[nodiscard]] std::uint64_t ExtendSequence(std::uint16_t low, std::uint64_t highest);

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_SEQUENCE_WINDOW_H_
