// The keychain file and the key store.
//
// The file is JSON: {"keychain-storage": [{"key-id": number, "key-string": text}, ...]}. A key's
// text is kept exactly as written. Control phases in mode "keychain" name a key by its id.

#ifndef IPSLA_CONFIG_KEYCHAIN_H_
#define IPSLA_CONFIG_KEYCHAIN_H_

#include <memory>
#include <string>

#include "config/keychain_rules.h"
#include "log/mutex.h"

namespace ipsla {

/// Reads the keychain file into `storage`, which is emptied first. 0, or -1 after logging the
/// reason (but see kept-behaviours.md#unusable-files-may-leave-no-word). Faulty and duplicate
/// entries are logged and skipped; the first definition of an id wins. With -1 `fault` is the
/// reason for a person (FileFaultText).
[[nodiscard]] int ParseKeychainConfig(const std::string& filename, KeychainStorage* storage,
                                      std::string* fault);

/// The one key store of the daemon, shared with every test: an immutable snapshot that a re-read
/// replaces as a whole. Threads: any.
class KeyStore {
 public:
  /// The current keys; never null. What is returned does not change any more.
  [[nodiscard]] std::shared_ptr<const KeychainStorage> Snapshot() const;

  /// Replaces all keys.
  void Replace(KeychainStorage storage);

 private:
  // Held for the copy of one pointer.
  mutable Mutex mutex_;
  std::shared_ptr<const KeychainStorage> storage_ IPSLA_GUARDED_BY(mutex_) =
      std::make_shared<const KeychainStorage>();
};

}  // namespace ipsla

#endif  // IPSLA_CONFIG_KEYCHAIN_H_
