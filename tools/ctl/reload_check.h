// Whether a reload would go well: the file as it is now, before the daemon reads it.

#ifndef IPSLA_TOOLS_CTL_RELOAD_CHECK_H_
#define IPSLA_TOOLS_CTL_RELOAD_CHECK_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "client/daemon_process.h"
#include "ctl/check.h"

namespace ipsla::ctl {

/// An element of the file that the daemon passes over, or that ends it.
struct SkippedElement {
  std::size_t number = 0;  ///< in its array, from 1
  std::optional<std::int32_t> id{};
  std::string reason;
};

/// What is known before a reload.
struct ReloadCheck {
  std::vector<std::string> objections{};  ///< why not, as lines; empty: go on
  bool would_end_daemon = false;          ///< the objections hold even when the reload is forced
  std::vector<SkippedElement> skipped{};  ///< with one reason each
  std::set<std::int32_t> ids{};           ///< of the tasks or keys in the file
};

/// Checks the tasks file that the daemon would read. `file`: its name, empty for the daemon's own;
/// `daemon`: null when it is not known.
[[nodiscard]] ReloadCheck CheckTasksReload(const std::string& file,
                                           const client::DaemonProcess* daemon);

/// The same of the keychain file, and whether the tasks file uses keys that it has no more.
[[nodiscard]] ReloadCheck CheckKeychainReload(const std::string& file,
                                              const client::DaemonProcess* daemon);

/// The tasks of a tasks file's text that use a key which is not among `keys`, as lines.
[[nodiscard]] std::vector<std::string> TasksWithoutKey(const std::string& tasks_text,
                                                       const KeychainStorage& keys);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_RELOAD_CHECK_H_
