// The configuration files through the daemon's own parser, with everything that is wrong in them.
// Reads files, logs nothing, asks the system nothing else.

#ifndef IPSLA_TOOLS_CTL_CHECK_H_
#define IPSLA_TOOLS_CTL_CHECK_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "config/task_parser.h"

namespace ipsla::ctl {

/// Something about one element of a file, or (number 0) about the file.
struct Finding {
  std::size_t number = 0;            ///< of the task or key in its array, from 1
  std::optional<std::int32_t> id{};  ///< its id, when it has one
  TaskFault fault;                   ///< key and value may be empty
};

struct FileReport {
  std::string name;
  std::vector<Finding> faults{};
  std::vector<Finding> warnings{};
  std::size_t elements = 0;  ///< tasks or keys in the file
  std::size_t accepted = 0;  ///< of these, what the daemon will use
};

struct CheckReport {
  FileReport tasks;
  std::optional<FileReport>
      keychain;  ///< none: no keychain file was given, key ids were not looked up

  [[nodiscard]] bool HasFaults() const;
};

/// Checks both files as the daemon would read them at `now`. An empty keychain file name: none.
[[nodiscard]] CheckReport CheckFiles(const std::string& tasks_file,
                                     const std::string& keychain_file, const timespec& now);

/// For people: one line per finding, then one line per file with its counts.
[[nodiscard]] std::vector<std::string> CheckLines(const CheckReport& report);

/// {"tasks": FILE, "keychain": FILE or null} with FILE = {"file", "elements", "accepted", "faults":
/// [FINDING...], "warnings": [FINDING...]} and FINDING = {"number", "id", "key", "value",
/// "reason"}; "number" and "id" are null where there is none.
[[nodiscard]] std::string CheckJson(const CheckReport& report);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_CHECK_H_
