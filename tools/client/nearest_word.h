// "Did you mean ...?" Pure.

#ifndef IPSLA_TOOLS_CLIENT_NEAREST_WORD_H_
#define IPSLA_TOOLS_CLIENT_NEAREST_WORD_H_

#include <span>
#include <string>
#include <string_view>

namespace ipsla::client {

/// The known word that `word` is most likely a slip of: another case or other separators, its
/// beginning or its end left out, or a few characters wrong. Empty when none is near.
[[nodiscard]] std::string NearestWord(std::string_view word,
                                      std::span<const std::string_view> known);

/// The known word with the fewest characters to change, however many; of several the first. Empty
/// without known words, and for a word that is too long to be one.
[[nodiscard]] std::string ClosestWord(std::string_view word,
                                      std::span<const std::string_view> known);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_NEAREST_WORD_H_
