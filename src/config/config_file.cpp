#include "config/config_file.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <cjson/cJSON.h>

namespace ipsla {

ConfigFile ReadConfigFile(const std::string& filename, const char* key) {
  ConfigFile file;
  if (filename.empty()) {
    file.fault = ConfigFileFault::kNoName;
    return file;
  }
  std::optional<std::string> content = ReadWholeFile(filename);
  if (!content) {
    file.fault = ConfigFileFault::kUnreadable;
    file.error = errno;
    return file;
  }
  std::string& text = *content;
  file = ReadConfigText(text, key);
  explicit_bzero(text.data(), text.size());  // it may hold keys
  return file;
}

ConfigFile ReadConfigText(std::string_view content, const char* key) {
  ConfigFile file;
  file.json = ParseJson(content);
  if (!file.json.document) {
    file.fault = ConfigFileFault::kNotJson;
    return file;
  }
  const cJSON* array = cJSON_GetObjectItem(file.json.document.get(), key);
  if (cJSON_IsArray(array) == 0) {
    file.fault = ConfigFileFault::kNoArray;
    return file;
  }
  file.array = array;
  return file;
}

std::string FileFaultText(const std::string& filename, const ConfigFile& file, const char* key) {
  switch (file.fault) {
    case ConfigFileFault::kNone:
      return {};
    case ConfigFileFault::kNoName:
      return std::string("no file with \"") + key + "\" is named";
    case ConfigFileFault::kUnreadable:
      return filename + ": " + std::strerror(file.error);
    case ConfigFileFault::kNotJson: {
      const std::string what =
          file.json.too_deep ? "nests deeper than " + std::to_string(kMaxJsonDepth) : "is not JSON";
      if (!file.json.error_text) {
        return filename + ": " + what;
      }
      return filename + ":" + std::to_string(file.json.error_line) + ":" +
             std::to_string(file.json.error_column) + ": " + what;
    }
    case ConfigFileFault::kNoArray:
      return filename + ": has no array \"" + key + "\" in its root";
  }
  return {};
}

}  // namespace ipsla
