#include "config/config_file.h"

#include <utility>

#include <cjson/cJSON.h>

#include "log/log.h"

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
  file.json = ParseJson(*content);
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

void LogFileFault(const ConfigFile& file, const char* what) {
  switch (file.fault) {
    case ConfigFileFault::kNoName:
      LOG_DEBUG(0, "invalid %s configuration filename", what);
      break;
    case ConfigFileFault::kUnreadable:
      LOG_DEBUG(0, "unable to open configuration file");
      break;
    case ConfigFileFault::kNotJson: {
      // Without a known position the log file gets no line and the system log one with an empty
      // text; deliberate.
      const std::string text = file.json.error_text.value_or("");
      if (file.json.error_text) LOG_DEBUG_FILE(0, "JSON parse error at line: %s", text.c_str());
      LOG_DEBUG_SYSTEM("JSON parse error at line: %s", text.c_str());
      break;
    }
    case ConfigFileFault::kNone:
    case ConfigFileFault::kNoArray:
      break;
  }
}

}  // namespace ipsla
