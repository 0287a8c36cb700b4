#include "config/file_fault_log.h"

#include <string>

#include "log/log.h"

namespace ipsla {

void LogFileFault(const ConfigFile& file, const char* what) {
  switch (file.fault) {
    case ConfigFileFault::kNoName:
      LOG_DEBUG(0, "invalid %s configuration filename", what);
      break;
    case ConfigFileFault::kUnreadable:
      LOG_DEBUG(0, "unable to open configuration file");
      break;
    case ConfigFileFault::kNotJson: {
      // kept-behaviours.md#unusable-files-may-leave-no-word
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
