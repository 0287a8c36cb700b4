// What `status` says of the daemon itself. Pure.

#ifndef IPSLA_TOOLS_CTL_DAEMON_STATUS_H_
#define IPSLA_TOOLS_CTL_DAEMON_STATUS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/daemon_process.h"
#include "config/json_text.h"
#include "ctl/text_table.h"

namespace ipsla::ctl {

/// A reload of the tasks file as the daemon's log tells it.
struct TasksReload {
  std::int64_t time = 0;  ///< seconds since the epoch
  bool refused = false;   ///< the file could not be used
};

/// The last reload in the text of "sender.log" that is not older than `since` (seconds since the
/// epoch). The log has local times and is cut now and then: nothing does not mean never.
[[nodiscard]] std::optional<TasksReload> LastReload(std::string_view log, std::int64_t since);

/// How many tasks there are, run, and fail.
struct TaskCounts {
  /// None when tasks that have not run could not be looked for.
  std::optional<std::size_t> configured{}, scheduled{};
  std::size_t failing = 0;
};

/// All that "status" tells.
struct DaemonStatus {
  std::optional<client::DaemonProcess> process{};  ///< the one that answers; none: not to be told
  std::optional<std::string> version{};
  bool log_read = false;  ///< the daemon's log could be looked at
  std::optional<TasksReload> reload{};
  std::vector<int> pids{};            ///< of all daemons, ascending
  bool may_be_elsewhere = false;      ///< whether all are in this network namespace may not be told
  std::optional<TaskCounts> tasks{};  ///< none: only some tasks were looked at
};

/// Lines for people; `now` in seconds since the epoch. What is not known says so.
[[nodiscard]] std::vector<TableCell> DaemonLines(const DaemonStatus& status, std::int64_t now);

/// {"version", "pid", "started", "tasks-file", "keychain-file", "last-reload",
/// "last-reload-refused", "configured", "scheduled", "failing", "pids"}; what is not known is null.
[[nodiscard]] JsonDocument DaemonObject(const DaemonStatus& status);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_DAEMON_STATUS_H_
