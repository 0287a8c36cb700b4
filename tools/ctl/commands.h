// The commands of ip-sla-ctl. Each prints to standard output and returns the exit status.

#ifndef IPSLA_TOOLS_CTL_COMMANDS_H_
#define IPSLA_TOOLS_CTL_COMMANDS_H_

#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/sender_client.h"
#include "ctl/task_source.h"
#include "ctl/task_view.h"
#include "ctl/thresholds.h"

namespace ipsla::ctl {

/// Exit statuses of every command but `probe`.
enum ExitStatus : int {
  kExitFine = 0,
  kExitFailing = 1,   ///< a test is failing, a file has faults, a reload was refused or lost a task
  kExitNoDaemon = 2,  ///< no (usable) reply
  kExitUsage = 3,     ///< the command line, or a task id that no task has
};

/// What every command takes.
struct CommonOptions {
  client::ClientOptions client;
  bool timeout_given = false;  ///< client.timeout was chosen by the user
  bool json = false;
};

/// Ends a command with a message and an exit status.
class CommandError : public std::runtime_error {
 public:
  /// `text` is printed on standard error.
  CommandError(ExitStatus status, const std::string& text)
      : std::runtime_error(text), status_(status) {}
  /// What the program ends with.
  [[nodiscard]] ExitStatus Status() const { return status_; }

 private:
  // Constant.
  ExitStatus status_;
};

/// Complains about ids that no task has, on standard error.
void ReportUnknown(const std::vector<std::int32_t>& ids);

/// kExitUsage with unknown ids, else kExitFailing with a failing task, else kExitFine.
[[nodiscard]] int AnswerStatus(const client::TaskAnswer& answer, const TaskRules& rules);

/// Seconds since the epoch.
[[nodiscard]] std::int64_t Now();

/// Of "show".
struct ShowOptions {
  TaskChoice choice;
  bool metrics = false;
  bool raw = false;           ///< the API's own text
  bool failing_only = false;  ///< leaves out tasks that do not fail
  std::string sort;           ///< one of SortKeyNames(); empty: failing tasks first, in JSON by id
  std::string max_age;        ///< seconds, or "auto"; empty: stale results do not count
};
/// Prints results. The exit status.
int RunShow(const CommonOptions& common, const ShowOptions& options);

/// Of "watch".
struct WatchOptions {
  TaskChoice choice;
  std::string sort;         ///< as above
  double interval = 2;      ///< seconds
  std::uint32_t count = 0;  ///< refreshes; 0: until interrupted
};
/// Returns kExitFine when interrupted (SIGINT, SIGTERM), which it takes over.
int RunWatch(const CommonOptions& common, const WatchOptions& options);

/// Prints whether the daemon answers, and how its tasks are. The exit status.
int RunStatus(const CommonOptions& common, const TaskChoice& choice);

/// Of "reload".
struct ReloadOptions {
  std::string file;    ///< what the daemon reads; empty: as the daemon's command line says
  bool force = false;  ///< also a file with faults, unless it would end the daemon
};
/// Both check the file first and return kExitFailing when they object to it.
int RunReloadTasks(const CommonOptions& common, const ReloadOptions& options);
int RunReloadKeychain(const CommonOptions& common, const ReloadOptions& options);

/// Of "check".
struct CheckOptions {
  std::string tasks_file;
  std::string keychain_file;  ///< empty: key ids are not looked up
  bool no_host = false;       ///< leaves out what only this machine can tell
  bool strict = false;        ///< a warning makes the exit status kExitFailing, too
  bool start = false;         ///< only what would end the daemon at its start does
};
/// Needs no daemon and no privileges. One of the files may be standard input, "-".
int RunCheck(const CommonOptions& common, const CheckOptions& options);

/// Of "template".
struct TemplateOptions {
  std::string type;           ///< an "sla-type"
  std::string destination;    ///< the responder: a name or an address
  std::string source;         ///< empty: the route's
  std::string vrf;            ///< empty: none
  std::int32_t port = 50000;  ///< of the responder's control phase
  std::optional<std::int32_t> key_id;
  std::optional<std::int32_t> interval_ms, packets, period_s;  ///< none: what suits the type
};
/// Prints a tasks file with one task. kExitUsage when the options make none that works.
int RunTaskTemplate(const CommonOptions& common, const TemplateOptions& options);
/// Prints a keychain file with one random key.
int RunKeychainTemplate(std::int32_t key_id);

/// Of "probe".
struct ProbeOptions {
  std::int32_t id = 0;
  Thresholds warning, critical;
};
/// One line for a monitoring system. Exit 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN; throws nothing.
int RunProbe(const CommonOptions& common, const ProbeOptions& options);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_COMMANDS_H_
