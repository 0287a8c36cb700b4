// Where the values of a parsed JSON document stand in its text, which cJSON does not keep. Pure.

#ifndef IPSLA_TOOLS_CTL_JSON_POSITIONS_H_
#define IPSLA_TOOLS_CTL_JSON_POSITIONS_H_

#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <vector>

struct cJSON;

namespace ipsla::ctl {

/// A place in a text, both from 1; 0: not known.
struct TextPlace {
  std::size_t line = 0;
  std::size_t column = 0;  ///< byte in the line
  bool operator==(const TextPlace&) const = default;
};

/// Walks text and document side by side once. Valid while the document is, and does not keep the
/// text.
class JsonPositions {
 public:
  /// REQUIRES: `document` was parsed from `text` (ParseJson).
  JsonPositions(std::string_view text, const cJSON* document);

  /// Where a value of the document begins.
  [[nodiscard]] TextPlace OfValue(const cJSON* item) const;

  /// Where the name of an object's member begins; of other values as OfValue.
  [[nodiscard]] TextPlace OfName(const cJSON* member) const;

  /// The place of a byte of the text.
  [[nodiscard]] TextPlace At(std::size_t offset) const;

  /// Offset of the first byte behind the document.
  [[nodiscard]] std::size_t End() const { return end_; }

 private:
  // Bytes from the start of the text.
  struct Offsets {
    std::size_t name = 0;
    std::size_t value = 0;
  };
  // Offsets of lines, and of what stands on them.
  std::vector<std::size_t> line_starts_;
  std::unordered_map<const cJSON*, Offsets> offsets_;
  std::size_t end_ = 0;
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_JSON_POSITIONS_H_
