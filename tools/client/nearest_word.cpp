#include "client/nearest_word.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <vector>

namespace ipsla::client {
namespace {

/// Lower case, without what people put between the parts of a name.
std::string PlainWord(std::string_view word) {
  std::string plain;
  for (const char c : word) {
    if (c != '-' && c != '_' && c != ' ') {
      plain.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
  }
  return plain;
}

/// Characters to insert, remove, replace, or swap with their neighbour, to get from one word to
/// the other.
std::size_t Slips(const std::string& from, const std::string& to) {
  std::vector<std::size_t> before_last;
  std::vector<std::size_t> last(to.size() + 1);
  for (std::size_t j = 0; j <= to.size(); ++j) {
    last[j] = j;
  }
  for (std::size_t i = 1; i <= from.size(); ++i) {
    std::vector<std::size_t> row{i};
    for (std::size_t j = 1; j <= to.size(); ++j) {
      const std::size_t replaced = last[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      std::size_t least = std::min({replaced, last[j] + 1, row[j - 1] + 1});
      if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
        least = std::min(least, before_last[j - 2] + 1);
      }
      row.push_back(least);
    }
    before_last.swap(last);
    last.swap(row);
  }
  return last.back();
}

constexpr std::size_t kLongestWord = 64;  // no known word is nearly as long

}  // namespace

std::string ClosestWord(std::string_view word, std::span<const std::string_view> known) {
  if (known.empty() || word.size() > kLongestWord) {
    return "";
  }
  const std::string plain = PlainWord(word);
  return std::string(*std::min_element(
      known.begin(), known.end(), [&plain](std::string_view one, std::string_view other) {
        return Slips(plain, PlainWord(one)) < Slips(plain, PlainWord(other));
      }));
}

std::string NearestWord(std::string_view word, std::span<const std::string_view> known) {
  constexpr std::size_t kShortestPart = 3;
  if (word.empty() || word.size() > kLongestWord) {
    return "";
  }
  const std::string plain = PlainWord(word);
  std::string nearest;
  std::size_t least = std::max<std::size_t>(2, plain.size() / 3) + 1;
  for (const std::string_view candidate : known) {
    const std::string other = PlainWord(candidate);
    const bool is_part =
        plain.size() >= kShortestPart && (other.starts_with(plain) || other.ends_with(plain));
    const std::size_t slips =
        is_part ? std::min<std::size_t>(1, Slips(plain, other)) : Slips(plain, other);
    // A short word is not a slip of one that shares nothing with it.
    if (slips < least && slips < plain.size()) {
      least = slips;
      nearest = candidate;
    }
  }
  return nearest;
}

}  // namespace ipsla::client
