#include "ctl/json_positions.h"

#include <algorithm>

#include <cjson/cJSON.h>

namespace ipsla::ctl {
namespace {

/// Reads over the pieces of a text that is known to be valid JSON. What it cannot find, for a text
/// that is not what the document was parsed from, is at the text's end.
class JsonScanner {
 public:
  explicit JsonScanner(std::string_view text) : text_(text) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text_.starts_with(kByteOrderMark)) {
      at_ = kByteOrderMark.size();
    }
  }

  /// The offset behind what cJSON takes for white space: every control character.
  std::size_t SkipSpace() {
    while (at_ < text_.size() && static_cast<unsigned char>(text_[at_]) <= ' ') {
      ++at_;
    }
    return at_;
  }

  /// Over one character: a bracket, comma or colon.
  void SkipMark() {
    SkipSpace();
    at_ = std::min(at_ + 1, text_.size());
  }

  void SkipString() {
    for (++at_; at_ < text_.size() && text_[at_] != '"'; ++at_) {
      if (text_[at_] == '\\') {
        ++at_;
      }
    }
    at_ = std::min(at_ + 1, text_.size());
  }

  /// A number or a word: it ends where something else begins.
  void SkipWord() { at_ = std::min(text_.find_first_of(",]} \t\r\n", at_), text_.size()); }

  [[nodiscard]] std::size_t At() const { return at_; }

 private:
  std::string_view text_;
  std::size_t at_ = 0;
};

/// Calls `found` with each value of `item`, itself first, and the offsets of its name and value.
template <typename Found>
void WalkJson(JsonScanner* scanner, const cJSON* item, std::size_t name, const Found& found) {
  const std::size_t value = scanner->SkipSpace();
  found(item, name == std::string_view::npos ? value : name, value);
  const bool is_object = cJSON_IsObject(item) != 0;
  if (!is_object && cJSON_IsArray(item) == 0) {
    cJSON_IsString(item) != 0 ? scanner->SkipString() : scanner->SkipWord();
    return;
  }
  scanner->SkipMark();
  const cJSON* child = nullptr;
  cJSON_ArrayForEach(child, item) {
    std::size_t child_name = std::string_view::npos;
    if (is_object) {
      child_name = scanner->SkipSpace();
      scanner->SkipString();
      scanner->SkipMark();
    }
    WalkJson(scanner, child, child_name, found);
    scanner->SkipSpace();
    if (child->next != nullptr) {
      scanner->SkipMark();
    }
  }
  scanner->SkipMark();
}

}  // namespace

JsonPositions::JsonPositions(std::string_view text, const cJSON* document) : line_starts_{0} {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n') {
      line_starts_.push_back(i + 1);
    }
  }
  if (document == nullptr) {
    return;
  }
  JsonScanner scanner(text);
  WalkJson(&scanner, document, std::string_view::npos,
           [this](const cJSON* item, std::size_t name, std::size_t value) {
             offsets_.emplace(item, Offsets{name, value});
           });
  end_ = scanner.At();
}

TextPlace JsonPositions::OfValue(const cJSON* item) const {
  const auto found = offsets_.find(item);
  return found == offsets_.end() ? TextPlace{} : At(found->second.value);
}

TextPlace JsonPositions::OfName(const cJSON* member) const {
  const auto found = offsets_.find(member);
  return found == offsets_.end() ? TextPlace{} : At(found->second.name);
}

TextPlace JsonPositions::At(std::size_t offset) const {
  const auto next = std::upper_bound(line_starts_.begin(), line_starts_.end(), offset);
  const auto line = static_cast<std::size_t>(next - line_starts_.begin());
  return {line, 1 + offset - line_starts_[line - 1]};
}

}  // namespace ipsla::ctl
