#include "responder/sequence_window.h"

#include <algorithm>

namespace ipsla::responder {

SequenceWindow::Seen SequenceWindow::Note(std::uint64_t sequence) {
  const auto bit = static_cast<std::size_t>(sequence % kSize);
  if (empty_ || sequence > highest_) {
    // What the window moves over has not been seen yet.
    const std::uint64_t advance =
        empty_ ? kSize : std::min<std::uint64_t>(sequence - highest_, kSize);
    for (std::uint64_t i = 0; i < advance; ++i) {
      seen_.reset(static_cast<std::size_t>((sequence - i) % kSize));
    }
    seen_.set(bit);
    highest_ = sequence;
    empty_ = false;
    return Seen::kFirst;
  }
  if (highest_ - sequence >= kSize || seen_.test(bit)) return Seen::kBefore;
  seen_.set(bit);
  return Seen::kFirstOutOfOrder;
}

std::uint64_t ExtendSequence(std::uint16_t low, std::uint64_t highest) {
  constexpr std::uint64_t kSpan = 0x10000;
  // How far `low` lies ahead of or behind the highest number, at most half the span.
  const auto distance = static_cast<std::int16_t>(
      static_cast<std::uint16_t>(low - static_cast<std::uint16_t>(highest)));
  if (distance >= 0) return highest + static_cast<std::uint64_t>(distance);
  const auto behind = static_cast<std::uint64_t>(-static_cast<std::int32_t>(distance));
  return behind <= highest ? highest - behind : highest + kSpan - behind;
}

}  // namespace ipsla::responder
