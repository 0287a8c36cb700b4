// The keys of the responder, from the command line and from files.

#ifndef IPSLA_TOOLS_RESPONDER_KEYS_H_
#define IPSLA_TOOLS_RESPONDER_KEYS_H_

#include <functional>
#include <optional>
#include <string>

#include "responder/request_check.h"

namespace ipsla::responder {

/// Where keys come from. Files are read each time.
struct KeySources {
  std::optional<std::string> password;       ///< as given on the command line
  std::optional<std::string> password_file;  ///< the file whose first line is the password
  std::optional<std::string> keychain;       ///< a keychain file, as the sender's
  bool allow_open = false;                   ///< AuthPolicy::allow_open
};

/// Takes a line about something that is suspicious but not wrong.
using Warn = std::function<void(const std::string& text)>;

/// Reads the keys. Throws std::runtime_error that says what is wrong: a file that cannot be read,
/// an empty key, a key of more than 64 KiB.
[[nodiscard]] AuthPolicy ReadPolicy(const KeySources& sources, const Warn& warn);

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_KEYS_H_
