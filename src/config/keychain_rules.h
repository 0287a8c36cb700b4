// Keys by id, and the rules by which a keychain file's elements become keys. Pure functions over
// values.

#ifndef IPSLA_CONFIG_KEYCHAIN_RULES_H_
#define IPSLA_CONFIG_KEYCHAIN_RULES_H_

#include <cstddef>
#include <cstdint>
#include <map>
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

/// Puts the key that `auth` needs into `key`: the password, the keychain's key for the (8-bit) key
/// id, or "no key required". 1, or -1 when there is none; `key` is then "no key" (not in the store)
/// or "undefined" (unknown mode).
int GetTaskKey(std::string* key, const SlaAuthConfig& auth, const KeychainStorage& storage);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_KEYCHAIN_RULES_H_
