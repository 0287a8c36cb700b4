#include "ctl/task_source.h"

#include <utility>

#include <fmt/format.h>

#include "ctl/commands.h"

namespace ipsla::ctl {

TaskSource::TaskSource(const client::ClientOptions& options, TaskChoice choice)
    : sender_(options), choice_(std::move(choice)), daemons_(client::FindDaemons(options.port)) {
  auto plans = ReadPlans(&plans_error_);
  if (plans) {
    plans_ = std::move(*plans);
    plans_error_.clear();
  } else if (!choice_.tasks_file.empty()) {
    throw CommandError(kExitUsage, plans_error_);
  }
}

client::TaskAnswer TaskSource::Query(const std::set<std::string>& wanted) const {
  return client::QueryTasks(sender_, choice_.selection, plans_, wanted);
}

void TaskSource::ReadPlansAgain() {
  std::string ignored;
  if (auto plans = ReadPlans(&ignored)) {
    plans_ = std::move(*plans);
    plans_error_.clear();
  }
}

void TaskSource::WarnOfHiddenTasks() const {
  const auto& selection = choice_.selection;
  if (selection.all && !selection.scan && !HasPlans()) {
    fmt::print(stderr,
               "ip-sla-ctl: {}: tasks that have not run yet are left out (name the file with "
               "--tasks, or use --scan)\n",
               plans_error_);
  }
}

std::optional<client::TaskPlans> TaskSource::ReadPlans(std::string* error) const {
  if (!choice_.tasks_file.empty()) {
    return client::ReadPlansFile(choice_.tasks_file, error);
  }
  return client::ReadDaemonPlans(client::AnsweringDaemon(daemons_), error);
}

}  // namespace ipsla::ctl
