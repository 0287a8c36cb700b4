// What this process uses, as the kernel accounts it.

#ifndef IPSLA_TOOLS_EXPORTER_PROCESS_INFO_H_
#define IPSLA_TOOLS_EXPORTER_PROCESS_INFO_H_

#include <optional>

namespace ipsla::exporter {

/// Each value is absent when /proc does not tell it.
struct ProcessInfo {
  std::optional<double> cpu_seconds;     ///< user and system time
  std::optional<double> resident_bytes;  ///< memory
  std::optional<double> virtual_bytes;   ///< address space
  std::optional<double> open_fds, max_fds;
  std::optional<double> start_time;  ///< seconds since the epoch
};

/// Of this process, now.
[[nodiscard]] ProcessInfo ReadProcessInfo();

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_PROCESS_INFO_H_
