// JSON from outside: read through cJSON, with its nesting bounded first.

#ifndef IPSLA_CONFIG_JSON_TEXT_H_
#define IPSLA_CONFIG_JSON_TEXT_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct cJSON;

namespace ipsla {

/// Frees what cJSON allocated.
struct JsonDeleter {
  void operator()(cJSON* document) const;
  void operator()(char* printed) const;
};
/// Owns a parsed or built document.
using JsonDocument = std::unique_ptr<cJSON, JsonDeleter>;
/// Owns a text printed by cJSON.
using JsonText = std::unique_ptr<char, JsonDeleter>;

/// Deepest nesting of arrays and objects that is parsed. cJSON recurses, and the daemon's threads
/// have small stacks.
inline constexpr std::size_t kMaxJsonDepth = 32;

/// Position of the first bracket that nests deeper than `limit` (brackets inside strings do not
/// count), or npos.
[[nodiscard]] std::size_t FindTooDeep(std::string_view text, std::size_t limit = kMaxJsonDepth);

/// Outcome of ParseJson.
struct JsonParse {
  JsonDocument document;  ///< null when the text is not valid JSON or nests too deep
  std::optional<std::string>
      error_text;  ///< on failure: the text from the fault on, when its position is known
  std::size_t error_line = 0;    ///< with error_text: line of the fault, from 1; else 0
  std::size_t error_column = 0;  ///< with error_text: byte in that line, from 1; else 0
  bool too_deep = false;         ///< the fault is nesting deeper than kMaxJsonDepth
};

/// Parses one document. The text ends at its first NUL or at its end. Not thread-safe: cJSON keeps
/// the error position in a global, so only one thread of the process may parse.
[[nodiscard]] JsonParse ParseJson(std::string_view text);

/// The compact JSON text of `item`, cut to `limit` bytes with "..." at the end when it is longer.
/// Empty for null.
[[nodiscard]] std::string ShortJsonText(const cJSON* item, std::size_t limit = 64);

/// Reads a whole file. Nothing when it cannot be opened or read to its end (a directory, for
/// example).
[[nodiscard]] std::optional<std::string> ReadWholeFile(const std::string& filename);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_JSON_TEXT_H_
