#include "config/config_file.h"

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
    return file;
  }
  file = ReadConfigText(*content, key);
  explicit_bzero(content->data(), content->size());  // it may hold keys
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

}  // namespace ipsla
