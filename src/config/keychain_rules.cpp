#include "config/keychain_rules.h"

#include <cjson/cJSON.h>

namespace ipsla {

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

}  // namespace ipsla
