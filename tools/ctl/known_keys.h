// The keys of the configuration files and what each takes: for messages, and to tell the keys that
// nobody reads. Pure.

#ifndef IPSLA_TOOLS_CTL_KNOWN_KEYS_H_
#define IPSLA_TOOLS_CTL_KNOWN_KEYS_H_

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "config/task_config.h"

namespace ipsla::ctl {

/// The objects of the two files.
enum class KeyPlace : std::uint8_t {
  kTasksRoot,
  kTask,
  kScheduler,
  kControlPhase,
  kAuthentication,
  kMeasurement,
  kKeychainRoot,
  kKey,
};

/// What a value may be; kAny where no type is wrong or another check says which.
enum class KeyKind : std::uint8_t { kNumber, kText, kTextOrNumber, kBool, kObject, kArray, kAny };

/// One key that the daemon reads.
struct KnownKey {
  std::string_view name;
  KeyKind kind = KeyKind::kAny;
  std::string expected{};  ///< what works there, as a phrase; empty where there is more to it
};

/// The keys of an object. The measurement phases of a task are among its keys.
[[nodiscard]] std::span<const KnownKey> KeysOf(KeyPlace place);

/// The key that the daemon takes `name` for, which is compared without case; null for none.
[[nodiscard]] const KnownKey* FindKnownKey(KeyPlace place, std::string_view name);

/// The place of a member's object within a task, from the member's key as in a TaskFault.
[[nodiscard]] KeyPlace PlaceOfKey(std::string_view key);

/// What works at `key` (as in a TaskFault) of a task of this type; may be empty.
[[nodiscard]] std::string ExpectedAt(std::string_view key, SlaTestType type);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_KNOWN_KEYS_H_
