// The configuration files through the daemon's own parser, with everything that is wrong in them,
// and with what they would do on this machine.

#ifndef IPSLA_TOOLS_CTL_CHECK_H_
#define IPSLA_TOOLS_CTL_CHECK_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "config/keychain_rules.h"
#include "ctl/config_input.h"
#include "ctl/host_view.h"
#include "ctl/json_positions.h"
#include "ctl/remark.h"

namespace ipsla::ctl {

/// Something about one element of a file, or (number 0) about the file.
struct Finding {
  std::size_t number = 0;            ///< of the task or key in its array, from 1
  std::optional<std::int32_t> id{};  ///< its id, when it has one
  TaskFault fault;                   ///< key and value may be empty
  std::string expected{};            ///< what works there, when that can be said in a phrase
  bool missing = false;              ///< nothing has that key
  bool is_fatal = false;             ///< it ends the daemon that reads the file at its start
  TextPlace place{};                 ///< the value, or what it is missing in
};

/// What was found in one file.
struct FileReport {
  std::string name;
  std::vector<Finding> faults{};
  std::vector<Finding> warnings{};
  std::vector<std::string> notes{};  ///< what could not be looked at, and why
  std::size_t elements = 0;          ///< tasks or keys in the file
  std::size_t accepted = 0;          ///< of these, what the daemon can use
};

/// What was found in both.
struct CheckReport {
  FileReport tasks;
  std::optional<FileReport>
      keychain;  ///< none: no keychain file was given, key ids were not looked up

  [[nodiscard]] bool HasFaults() const;
  [[nodiscard]] bool IsFatal() const;
  [[nodiscard]] bool HasWarnings() const;
};

/// Which files, against what.
struct CheckRequest {
  std::string tasks_file{};
  std::string keychain_file{};  ///< empty: none
  timespec now{};               ///< the moment at which the daemon would read them
  HostView* host = nullptr;     ///< null: what only a machine can tell is left out
};

/// Checks both files. Either name, not both, may be kStandardInput.
[[nodiscard]] CheckReport CheckFiles(const CheckRequest& request);

/// Checks a keychain's text and reads its keys.
[[nodiscard]] FileReport CheckKeychain(const std::string& name, const ConfigInput& input,
                                       const HostView* host, KeychainStorage* keys);

/// Checks a tasks file's text; without a keychain (null) key ids are not looked up. Of `request`
/// only the time and the host are used.
[[nodiscard]] FileReport CheckTasks(const std::string& name, const ConfigInput& input,
                                    const KeychainStorage* keychain, const CheckRequest& request);

/// For people: one line per finding and note, then one line per file with its counts.
[[nodiscard]] std::vector<std::string> CheckLines(const CheckReport& report);

/// The lines of one file's findings alone; `noun` is what its elements are called.
[[nodiscard]] std::vector<std::string> FindingLines(const FileReport& report, const char* noun);

/// {"tasks": FILE, "keychain": FILE or null} with FILE = {"file", "elements", "accepted", "faults":
/// [FINDING...], "warnings": [FINDING...], "notes": [text...]} and FINDING = {"number", "id",
/// "key", "value", "reason", "expected", "line", "column"}; "number", "id", "line" and "column" are
/// null where there is none.
[[nodiscard]] std::string CheckJson(const CheckReport& report);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_CHECK_H_
