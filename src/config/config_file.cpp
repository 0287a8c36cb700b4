#include "config/config_file.h"

#include <utility>

#include <cjson/cJSON.h>

namespace ipsla {

ConfigFile ReadConfigFile(const std::string& filename, const char* key) {
  ConfigFile file;
  if (filename.empty()) {
    file.fault = ConfigFileFault::kNoName;
    return file;
  }
  const std::optional<std::string> content = ReadWholeFile(filename);
  if (!content) {
    file.fault = ConfigFileFault::kUnreadable;
    return file;
  }
  return ReadConfigText(*content, key);
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
