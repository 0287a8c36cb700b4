// Which version a running daemon is of: its own program says it.

#ifndef IPSLA_TOOLS_CLIENT_DAEMON_VERSION_H_
#define IPSLA_TOOLS_CLIENT_DAEMON_VERSION_H_

#include <optional>
#include <string>

#include "client/daemon_process.h"

namespace ipsla::client {

/// Runs the program that the process runs (also one that was replaced on disk since) with "-v" and
/// returns the version in what it prints. Nothing when it may not be run, or says nothing within
/// two seconds. It is only run when nobody but root and the caller could have written it, and the
/// process is theirs: any user may name a process like the daemon.
[[nodiscard]] std::optional<std::string> VersionOf(const DaemonProcess& daemon);

/// The version in "IP SLA module version R1.2.3 (compiled ...)". Pure.
[[nodiscard]] std::optional<std::string> VersionIn(const std::string& banner);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_DAEMON_VERSION_H_
