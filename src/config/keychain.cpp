#include "config/keychain.h"

#include <cjson/cJSON.h>

#include <utility>

#include "config/config_file.h"
#include "log/log.h"

namespace ipsla {
namespace {

// Logs what is wrong with the file as a whole.
void LogFileFault(const ConfigFile& file) {
  switch (file.fault) {
    case ConfigFileFault::kNoName:
      LOG_DEBUG(0, "invalid keychain configuration filename");
      break;
    case ConfigFileFault::kUnreadable:
      LOG_DEBUG(0, "unable to open configuration file");
      break;
    case ConfigFileFault::kNotJson: {
      // Without a known position the log file gets no line and the system log one with an empty text; deliberate.
      const std::string text = file.json.error_text.value_or("");
      if (file.json.error_text) LOG_DEBUG_FILE(0, "JSON parse error at line: %s", text.c_str());
      LOG_DEBUG_SYSTEM("JSON parse error at line: %s", text.c_str());
      break;
    }
    case ConfigFileFault::kNoArray:
      // Deliberately silent unless the JSON library still holds an error, which it forgets with every new document.
      if (cJSON_GetErrorPtr() != nullptr) LOG_DEBUG(0, "invalid configuration");
      break;
    case ConfigFileFault::kNone:
      break;
  }
}

}  // namespace

std::vector<KeyFault> ReadKeys(const cJSON* array, KeychainStorage* storage) {
  std::vector<KeyFault> faults;
  std::size_t position = 0;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, array) {
    const cJSON* id = cJSON_GetObjectItem(element, "key-id");
    const char* text = cJSON_GetStringValue(cJSON_GetObjectItem(element, "key-string"));
    if (cJSON_IsNumber(id) == 0 || text == nullptr) {
      faults.push_back({position, std::nullopt, "key id #undefined parse skipped: no key configuration"});
    } else if (!storage->try_emplace(id->valueint, text).second) {
      const std::string number = std::to_string(id->valueint);
      faults.push_back({position, id->valueint, "key id #" + number + " parse skipped: duplicate key"});
    }
    ++position;
  }
  return faults;
}

int ParseKeychainConfig(const std::string& filename, KeychainStorage* storage) {
  storage->clear();
  const ConfigFile file = ReadConfigFile(filename, kKeychainKey);
  if (file.fault != ConfigFileFault::kNone) {
    LogFileFault(file);
    return -1;
  }
  for (const KeyFault& fault : ReadKeys(file.array, storage)) LOG_DEBUG(0, "%s", fault.reason.c_str());
  return 0;
}

int GetTaskKey(std::string* key, const SlaAuthConfig& auth, const KeychainStorage& storage) {
  switch (auth.mode) {
    case SlaAuthMode::kPassword:
      *key = auth.key_string;
      return 1;
    case SlaAuthMode::kKeychain: {
      const auto found = storage.find(auth.key_id);
      if (found == storage.end()) {
        *key = "no key";
        return -1;
      }
      *key = found->second;
      return 1;
    }
    case SlaAuthMode::kNone:
      *key = "no key required";
      return 1;
    default:
      *key = "undefined";
      return -1;
  }
}

std::shared_ptr<const KeychainStorage> KeyStore::Snapshot() const {
  const std::lock_guard lock(mutex_);
  return storage_;
}

void KeyStore::Replace(KeychainStorage storage) {
  auto fresh = std::make_shared<const KeychainStorage>(std::move(storage));
  const std::lock_guard lock(mutex_);
  storage_.swap(fresh);  // the old keys are freed by `fresh`, after the lock when it was the last owner
}

}  // namespace ipsla
