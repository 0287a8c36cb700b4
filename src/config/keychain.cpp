#include "config/keychain.h"

#include <utility>

#include <cjson/cJSON.h>

#include "config/config_file.h"
#include "log/log.h"

namespace ipsla {
namespace {

// Logs what is wrong with the file as a whole.
void LogKeychainFileFault(const ConfigFile& file) {
  LogFileFault(file, "keychain");
  // Deliberately silent unless the JSON library still holds an error, which it forgets with every
  // new document.
  if (file.fault == ConfigFileFault::kNoArray && cJSON_GetErrorPtr() != nullptr)
    LOG_DEBUG(0, "invalid configuration");
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
      faults.push_back(
          {position, std::nullopt, "key id #undefined parse skipped: no key configuration"});
    } else if (!storage->try_emplace(id->valueint, text).second) {
      const std::string number = std::to_string(id->valueint);
      faults.push_back(
          {position, id->valueint, "key id #" + number + " parse skipped: duplicate key"});
    }
    ++position;
  }
  return faults;
}

int ParseKeychainConfig(const std::string& filename, KeychainStorage* storage) {
  storage->clear();
  const ConfigFile file = ReadConfigFile(filename, kKeychainKey);
  if (file.fault != ConfigFileFault::kNone) {
    LogKeychainFileFault(file);
    return -1;
  }
  for (const KeyFault& fault : ReadKeys(file.array, storage))
    LOG_DEBUG(0, "%s", fault.reason.c_str());
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
  storage_.swap(
      fresh);  // the old keys are freed by `fresh`, after the lock when it was the last owner
}

}  // namespace ipsla
