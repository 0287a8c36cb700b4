#include "config/keychain.h"

#include <cstring>
#include <utility>

#include <cjson/cJSON.h>

#include "config/config_file.h"
#include "config/file_fault_log.h"
#include "log/log.h"

namespace ipsla {
namespace {

// Logs what is wrong with the file as a whole.
void LogKeychainFileFault(const ConfigFile& file) {
  LogFileFault(file, "keychain");
  // The JSON library forgets its error with every new document, so this is hardly ever said:
  // kept-behaviours.md#unusable-files-may-leave-no-word
  if (file.fault == ConfigFileFault::kNoArray && cJSON_GetErrorPtr() != nullptr) {
    LOG_DEBUG(0, "invalid configuration");
  }
}

// Keys that were replaced do not stay behind in freed memory. (This floor has no cryptographic
// library; the C library's own function is not optimised away either.)
void Wipe(KeychainStorage* storage) {
  for (auto& [id, key] : *storage) explicit_bzero(key.data(), key.size());
  delete storage;  // NOLINT(cppcoreguidelines-owning-memory): the deleter of a shared pointer
}

}  // namespace

int ParseKeychainConfig(const std::string& filename, KeychainStorage* storage, std::string* fault) {
  storage->clear();
  const ConfigFile file = ReadConfigFile(filename, kKeychainKey);
  if (file.fault != ConfigFileFault::kNone) {
    LogKeychainFileFault(file);
    *fault = FileFaultText(filename, file, kKeychainKey);
    return -1;
  }
  for (const KeyFault& skipped : ReadKeys(file.array, storage)) {
    LOG_DEBUG(0, "%s", skipped.reason.c_str());
  }
  return 0;
}

std::shared_ptr<const KeychainStorage> KeyStore::Snapshot() const {
  const MutexLock lock(mutex_);
  return storage_;
}

void KeyStore::Replace(KeychainStorage storage) {
  const std::shared_ptr<KeychainStorage> owned(new KeychainStorage(std::move(storage)), Wipe);
  std::shared_ptr<const KeychainStorage> fresh = owned;
  const MutexLock lock(mutex_);
  storage_.swap(
      fresh);  // the old keys are freed by `fresh`, after the lock when it was the last owner
}

}  // namespace ipsla
