// Whether a reload would go well: the file as it is now, before the daemon reads it.

#ifndef IPSLA_TOOLS_CTL_RELOAD_CHECK_H_
#define IPSLA_TOOLS_CTL_RELOAD_CHECK_H_

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/daemon_process.h"
#include "client/task_results.h"
#include "ctl/check.h"

namespace ipsla::ctl {

/// An element of the file that the daemon passes over, or that ends it.
struct SkippedElement {
  std::size_t number = 0;  ///< in its array, from 1
  std::optional<std::int32_t> id{};
  std::string reason;
};

/// A task of the file that has no fault of its own.
struct FileTask {
  std::size_t number = 0;             ///< in its array, from 1
  std::optional<std::uint8_t> key{};  ///< the key of the keychain that it uses
};

/// What is known before a reload.
struct ReloadCheck {
  std::vector<std::string> objections{};     ///< why not, as lines; empty: go on
  bool would_end_daemon = false;             ///< the objections hold even when the reload is forced
  std::vector<SkippedElement> skipped{};     ///< with one reason each
  std::set<std::int32_t> ids{};              ///< of the tasks or keys in the file
  std::map<std::int32_t, FileTask> tasks{};  ///< of a tasks file, by id; of one id the last
  std::string warning{};  ///< what may go wrong all the same, as a line; empty: nothing
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

/// The tasks without a fault of a tasks file's text; whether there is their key is not looked at.
[[nodiscard]] std::map<std::int32_t, FileTask> FaultlessTasks(const std::string& tasks_text);

/// The tasks of the file, among those that `check` did not object to, that a daemon with these
/// tasks has not taken, with what to do about it; in the order of the file.
[[nodiscard]] std::vector<SkippedElement> TasksNotTaken(const ReloadCheck& check,
                                                        const client::StatusMap& configured);

/// The warning that the keychain goes first: when both files were written after the daemon's start
/// and tasks use keys. Whether it has loaded them since, nobody tells. Otherwise empty.
[[nodiscard]] std::string KeychainFirstWarning(const client::DaemonProcess& daemon,
                                               const std::map<std::int32_t, FileTask>& tasks);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_RELOAD_CHECK_H_
