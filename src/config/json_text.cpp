#include "config/json_text.h"

#include <algorithm>
#include <cstdio>

#include <cjson/cJSON.h>

namespace ipsla {

void JsonDeleter::operator()(cJSON* document) const {
  cJSON_Delete(document);
}

void JsonDeleter::operator()(char* printed) const {
  cJSON_free(printed);
}

namespace {

// A failed parse whose fault is at `position` of `text`.
JsonParse FaultAt(std::string_view text, std::size_t position) {
  const std::string_view before = text.substr(0, position);
  const std::size_t line_start = before.rfind('\n') + 1;  // npos + 1 is 0: the first line
  JsonParse parse;
  parse.error_text = text.substr(position);
  parse.error_line = 1 + static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
  parse.error_column = 1 + position - line_start;
  return parse;
}

}  // namespace

std::size_t FindTooDeep(std::string_view text, std::size_t limit) {
  std::size_t depth = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') {
        ++i;  // whatever is escaped, it does not end the string
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return i;
    } else if ((c == ']' || c == '}') && depth > 0) {
      // A bracket too many or of the wrong kind is counted all the same: the parser stops there, so
      // that what follows is never nested into.
      --depth;
    }
  }
  return std::string_view::npos;
}

JsonParse ParseJson(std::string_view text) {
  const std::string terminated(text.substr(0, text.find('\0')));
  const std::size_t too_deep = FindTooDeep(terminated);
  if (too_deep != std::string_view::npos) {
    JsonParse refused = FaultAt(terminated, too_deep);
    refused.too_deep = true;
    return refused;
  }

  JsonParse parse;
  parse.document.reset(cJSON_Parse(terminated.c_str()));
  if (parse.document) return parse;
  const char* fault = cJSON_GetErrorPtr();
  if (fault == nullptr) return parse;
  return FaultAt(terminated,
                 std::min(static_cast<std::size_t>(fault - terminated.c_str()), terminated.size()));
}

std::string ShortJsonText(const cJSON* item, std::size_t limit) {
  if (item == nullptr) return {};
  const JsonText printed(cJSON_PrintUnformatted(item));
  if (!printed) return {};
  std::string text(printed.get());
  if (text.size() <= limit) return text;
  std::size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
    --end;  // not inside a UTF-8 character
  }
  text.resize(end);
  return text + "...";
}

std::optional<std::string> ReadWholeFile(const std::string& filename) {
  struct Closer {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
  };
  const std::unique_ptr<std::FILE, Closer> file(std::fopen(filename.c_str(), "rbe"));
  if (!file) return std::nullopt;
  // Read to the end instead of by the size found first: the file may be a pipe, or grow meanwhile.
  // A directory opens but cannot be read.
  std::string content;
  char piece[4096];
  while (const std::size_t bytes = std::fread(piece, 1, sizeof piece, file.get())) {
    content.append(piece, bytes);
  }
  if (std::ferror(file.get()) != 0) return std::nullopt;
  return content;
}

}  // namespace ipsla
