// The daemon as the machine's process table shows it: the Sender API tells neither who answers nor
// which files it reads. Needs no privileges, but tells more to root and to the daemon's own user.

#ifndef IPSLA_TOOLS_CLIENT_DAEMON_PROCESS_H_
#define IPSLA_TOOLS_CLIENT_DAEMON_PROCESS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/task_plan.h"

namespace ipsla::client {

/// A running ip-sla-sender.
struct DaemonProcess {
  int pid = 0;
  std::optional<std::int64_t> started{};  ///< seconds since the epoch
  /// Its "-f" and "-k", made absolute where its working directory may be read; empty: none, or not
  /// to be read.
  std::string tasks_file{}, keychain_file{};
  /// What stands before a path of the daemon to open it from here: empty, or its root directory
  /// when it lives in a mount namespace of its own.
  std::string root{};
  std::optional<bool> has_port{};  ///< it holds the API's port; none: may not be told

  /// A path of the daemon, as this process opens it.
  [[nodiscard]] std::string Reachable(const std::string& path) const { return root + path; }
};

/// The processes of that name in this network namespace (in any, where that may not be told), in
/// ascending process id. `port`: of the API. `proc`: the process table.
[[nodiscard]] std::vector<DaemonProcess> FindDaemons(std::uint16_t port,
                                                     const std::string& proc = "/proc");

/// Which of these answers on the port: the one that has it, or the only one there is when that may
/// not be told. Null: none of them, or not to be told.
[[nodiscard]] const DaemonProcess* AnsweringDaemon(const std::vector<DaemonProcess>& daemons);

/// What the daemon's tasks file says now. Nothing, with the reason in `error` (may be null), when
/// its name is not known or it cannot be read.
[[nodiscard]] std::optional<TaskPlans> ReadDaemonPlans(const DaemonProcess* daemon,
                                                       std::string* error);

/// ReadTaskPlans of a file, as above.
[[nodiscard]] std::optional<TaskPlans> ReadPlansFile(const std::string& path, std::string* error);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_DAEMON_PROCESS_H_
