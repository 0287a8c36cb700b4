// A configuration file up to its one required array: what the tasks file and the keychain file have
// in common.

#ifndef IPSLA_CONFIG_CONFIG_FILE_H_
#define IPSLA_CONFIG_CONFIG_FILE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "config/json_text.h"

namespace ipsla {

/// The required array of the tasks file and of the keychain file.
inline constexpr const char* kTasksKey = "IP-SLA-tasks";
inline constexpr const char* kKeychainKey = "keychain-storage";

/// What is wrong with a file as a whole.
enum class ConfigFileFault : std::uint8_t {
  kNone,
  kNoName,      ///< the file name is empty
  kUnreadable,  ///< it cannot be opened or read to its end, or is a directory
  kNotJson,     ///< ConfigFile::json says where
  kNoArray,     ///< the root has no member of the required name that is an array
};

/// A file as read by ReadConfigFile.
struct ConfigFile {
  ConfigFileFault fault = ConfigFileFault::kNone;
  JsonParse json;  ///< the document (also with kNoArray), or where its fault is (kNotJson)
  const cJSON* array =
      nullptr;    ///< the required array, owned by json.document; null with any fault
  int error = 0;  ///< errno of kUnreadable
};

/// Reads `filename` and finds the array `key` of its root. Logs nothing. Only one thread at a time
/// (ParseJson).
[[nodiscard]] ConfigFile ReadConfigFile(const std::string& filename, const char* key);

/// The same from a file's content.
[[nodiscard]] ConfigFile ReadConfigText(std::string_view content, const char* key);

/// For a person: which file is no use and why, one line without the file's content, which may be a
/// key. Empty with kNone.
[[nodiscard]] std::string FileFaultText(const std::string& filename, const ConfigFile& file,
                                        const char* key);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_CONFIG_FILE_H_
