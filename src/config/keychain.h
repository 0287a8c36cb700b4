// The keychain file and the key store.
//
// The file is JSON: {"keychain-storage": [{"key-id": number, "key-string": text}, ...]}. A key's
// text is kept exactly as written. Control phases in mode "keychain" name a key by its id.

#ifndef IPSLA_CONFIG_KEYCHAIN_H_
#define IPSLA_CONFIG_KEYCHAIN_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "config/task_config.h"

struct cJSON;

namespace ipsla {

/// Key id to key text, in ascending id.
using KeychainStorage = std::map<std::int32_t, std::string>;

/// A skipped element of "keychain-storage".
struct KeyFault {
  std::size_t position = 0;        ///< index of the element in the array, from 0
  std::optional<std::int32_t> id;  ///< the key id, when the element was skipped as a duplicate
  std::string reason;              ///< the exact text that the daemon logs
};

/// The rules of the keychain file without its file and its log: adds the elements of `array` to
/// `storage` and returns those that were skipped, in order.
[[nodiscard]] std::vector<KeyFault> ReadKeys(const cJSON* array, KeychainStorage* storage);

/// Reads the keychain file into `storage`, which is emptied first. 0, or -1 after logging the
/// reason (a document without "keychain-storage" fails without a line, deliberately). Faulty and
/// duplicate entries are logged and skipped; the first definition of an id wins.
[[nodiscard]] int ParseKeychainConfig(const std::string& filename, KeychainStorage* storage);

/// Puts the key that `auth` needs into `key`: the password, the keychain's key for the (8-bit) key
/// id, or "no key required". 1, or -1 when there is none; `key` is then "no key" (not in the store)
/// or "undefined" (unknown mode).
int GetTaskKey(std::string* key, const SlaAuthConfig& auth, const KeychainStorage& storage);

/// The one key store of the daemon, shared with every test: an immutable snapshot that a re-read
/// replaces as a whole. Threads: any.
class KeyStore {
 public:
  /// The current keys; never null. What is returned does not change any more.
  [[nodiscard]] std::shared_ptr<const KeychainStorage> Snapshot() const;

  /// Replaces all keys.
  void Replace(KeychainStorage storage);

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const KeychainStorage> storage_ =
      std::make_shared<const KeychainStorage>();  // guarded by mutex_
};

}  // namespace ipsla

#endif  // IPSLA_CONFIG_KEYCHAIN_H_
