#include "ctl/watch_feed.h"

#include <utility>

namespace ipsla::ctl {
namespace {

using client::TaskView;

/// As many may be listed and asked for at each refresh.
constexpr std::size_t kFewTasks = 24;
constexpr std::int64_t kMembersInterval = 30;
constexpr std::int64_t kListInterval = 300;

}  // namespace

WatchFeed::WatchFeed(TaskSource* source, std::set<std::string> wanted)
    : source_(source), plan_(std::move(wanted)) {}

std::vector<TaskView> WatchFeed::Refresh(const std::set<std::int32_t>& visible, std::int64_t now) {
  std::size_t budget = kRefreshBudget - std::min(std::exchange(spent_, 0), kRefreshBudget / 2);
  // What is known stays in doubt until all of this has gone well.
  const bool was_known = std::exchange(is_known_, false);
  if (!was_known || ListsNow(now)) {
    List(now);
  } else if (now - members_checked_ >= kMembersInterval) {
    budget -= std::min(CheckMembers(now), budget / 2);
  }
  std::vector<TaskView> tasks;
  RefreshNeeds needs{.visible = visible, .due = due_};
  for (const auto& [id, task] : tasks_) {
    tasks.push_back(task);
    if (visible.empty()) {
      needs.visible.insert(needs.visible.end(), id);
    }
  }
  Ask(plan_.Next(tasks, needs, budget, now));
  is_known_ = true;
  return Shown();
}

std::vector<TaskView> WatchFeed::Complete(const std::set<std::int32_t>& ids, std::int64_t now) {
  std::vector<TaskView> tasks;
  for (const std::int32_t id : ids) {
    if (due_.contains(id)) {
      tasks.push_back(tasks_.at(id));
    }
  }
  if (tasks.empty()) {
    return {};
  }
  const StatisticsRequest request =
      plan_.Next(tasks, {.visible = ids, .due = due_}, kRefreshBudget, now);
  Ask(request);
  tasks.clear();
  for (const auto& [id, groups] : request) {
    spent_ += LogBytesOfResult(groups);
    tasks.push_back(tasks_.at(id));
  }
  return tasks;
}

bool WatchFeed::HasMany() const {
  return tasks_.size() > kFewTasks;
}

bool WatchFeed::ListsNow(std::int64_t now) const {
  const auto& selection = source_->Selection();
  if (!HasMany() && !selection.scan) {
    return true;
  }
  // Otherwise new tasks are found by the file.
  return selection.ids.empty() && (selection.scan || !source_->HasPlans()) &&
         now - listed_ >= kListInterval;
}

void WatchFeed::List(std::int64_t now) {
  source_->ReadPlansAgain();
  auto answer = source_->Query({});
  tasks_ = TakeListed(std::exchange(tasks_, {}), std::move(answer.tasks), &due_);
  listed_ = now;
  members_checked_ = now;
}

std::size_t WatchFeed::CheckMembers(std::int64_t now) {
  source_->ReadPlansAgain();
  std::set<std::int32_t> ids = source_->Selection().ids;
  if (ids.empty()) {
    for (const auto& [id, plan] : source_->Plans()) {
      ids.insert(ids.end(), id);
    }
    for (const auto& [id, task] : tasks_) {
      ids.insert(id);
    }
  }
  const client::StatusMap configured = source_->Sender().Statuses(ids);
  std::erase_if(tasks_,
                [&configured](const auto& task) { return !configured.contains(task.first); });
  std::erase_if(due_, [this](std::int32_t id) { return !tasks_.contains(id); });
  for (const auto& [id, scheduled] : configured) {
    TaskView& task = tasks_[id];
    task.id = id;
    task.scheduled = scheduled;
    if (const auto plan = source_->Plans().find(id); plan != source_->Plans().end()) {
      task.plan = plan->second;
    }
  }
  members_checked_ = now;
  return ids.size() * kLogBytesOfStatus;
}

void WatchFeed::Ask(const StatisticsRequest& request) {
  // A reload may have changed a task's type since the tasks file was read.
  client::StatisticsMap results = client::QueryResults(source_->Sender(), request, plan_.Wanted());
  for (const auto& [id, groups] : request) {
    due_.erase(id);
    const auto result = results.find(id);
    if (result == results.end()) {
      tasks_[id].last.reset();  // it was started afresh, or is gone
    } else {
      tasks_[id].last = std::move(result->second);
    }
  }
}

std::vector<TaskView> WatchFeed::Shown() const {
  const auto& selection = source_->Selection();
  const bool with_unrun = selection.all || !selection.ids.empty();
  std::vector<TaskView> shown;
  for (const auto& [id, task] : tasks_) {
    if (task.last || with_unrun) {
      shown.push_back(task);
    }
  }
  return shown;
}

}  // namespace ipsla::ctl
