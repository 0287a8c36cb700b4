// Where the commands that look at tasks get them from: the daemon, and the tasks file for what the
// daemon does not tell.

#ifndef IPSLA_TOOLS_CTL_TASK_SOURCE_H_
#define IPSLA_TOOLS_CTL_TASK_SOURCE_H_

#include <set>
#include <string>
#include <vector>

#include "client/daemon_process.h"
#include "client/task_query.h"

namespace ipsla::ctl {

/// Which tasks a command is about.
struct TaskChoice {
  client::TaskSelection selection{};
  std::string tasks_file{};  ///< empty: the running daemon's own
};

/// Threads: one at a time in a process.
class TaskSource {
 public:
  /// Reads the tasks file. Throws CommandError when a file that was named cannot be read.
  TaskSource(const client::ClientOptions& options, TaskChoice choice);

  /// The chosen tasks with these groups. Throws ClientError.
  [[nodiscard]] client::TaskAnswer Query(const std::set<std::string>& wanted) const;

  /// Reads the tasks file again; one that cannot be read any more leaves the plans as they were.
  void ReadPlansAgain();

  /// On standard error, when tasks that have not run are asked for and cannot be found.
  void WarnOfHiddenTasks() const;

  /// What it was made of; the plans of the last refresh.
  [[nodiscard]] const client::SenderClient& Sender() const { return sender_; }
  [[nodiscard]] const client::TaskSelection& Selection() const { return choice_.selection; }
  [[nodiscard]] const client::TaskPlans& Plans() const { return plans_; }
  /// The plans are those of a file, not just empty.
  [[nodiscard]] bool HasPlans() const { return plans_error_.empty(); }
  [[nodiscard]] const std::vector<client::DaemonProcess>& Daemons() const { return daemons_; }

 private:
  // Plans of the tasks file; nothing, and `error`, when it cannot be read.
  [[nodiscard]] std::optional<client::TaskPlans> ReadPlans(std::string* error) const;

  // Constant but for the plans.
  const client::SenderClient sender_;
  const TaskChoice choice_;
  const std::vector<client::DaemonProcess> daemons_;
  client::TaskPlans plans_;
  std::string plans_error_;  // why there are none
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TASK_SOURCE_H_
