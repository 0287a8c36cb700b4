// The text of a configuration file, read so that neither a huge file nor one that never ends can
// harm.

#ifndef IPSLA_TOOLS_CTL_CONFIG_INPUT_H_
#define IPSLA_TOOLS_CTL_CONFIG_INPUT_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace ipsla::ctl {

/// Longest file that is read.
inline constexpr std::size_t kMaxConfigBytes = std::size_t{64} * 1024 * 1024;

/// Stands for standard input.
inline constexpr const char* kStandardInput = "-";

/// Of ReadConfigInput.
struct ConfigInput {
  std::string text;
  std::optional<std::string> fault{};  ///< why there is no text, with the system's reason
  int error = 0;                       ///< errno of that reason, when it is the system's
  std::optional<mode_t> mode{};        ///< permissions, of a regular file
};

/// Reads a whole file, or standard input. A pipe by name is read too, but only `patience` passes
/// without a byte from it.
[[nodiscard]] ConfigInput ReadConfigInput(
    const std::string& name, std::chrono::milliseconds patience = std::chrono::seconds(5));

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_CONFIG_INPUT_H_
