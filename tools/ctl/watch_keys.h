// The keys of `watch` on a terminal. Pure.

#ifndef IPSLA_TOOLS_CTL_WATCH_KEYS_H_
#define IPSLA_TOOLS_CTL_WATCH_KEYS_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ipsla::ctl {

/// What a key asks for.
enum class Key : std::uint8_t { kUp, kDown, kPageUp, kPageDown, kFirst, kLast, kQuit };

/// Turns what a terminal sends into keys; others are dropped. Arrows, page keys, Home, End and q,
/// and for them k, j, b, space, g, G.
class KeyReader {
 public:
  /// The keys that are complete with these bytes. A sequence may come in parts.
  [[nodiscard]] std::vector<Key> Feed(std::string_view bytes);

 private:
  std::string rest_;  // the beginning of a sequence
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_WATCH_KEYS_H_
