#include "ctl/watch_feed.h"

#include <utility>

namespace ipsla::ctl {
namespace {

using client::TaskView;

/// As many may be listed and asked for at each refresh.
constexpr std::size_t kFewTasks = 24;
constexpr std::int64_t kMembersInterval = 30;
constexpr std::int64_t kListInterval = 300;

/// Whether both are of one run.
bool IsSameResult(const TaskView& one, const TaskView& other) {
  return one.last && other.last && one.last->start_time == other.last->start_time &&
         one.last->finish_time == other.last->finish_time &&
         one.last->successful_count == other.last->successful_count &&
         one.last->failed_count == other.last->failed_count;
}

}  // namespace

WatchFeed::WatchFeed(TaskSource* source, std::set<std::string> wanted)
    : source_(source), plan_(std::move(wanted)) {}

std::vector<TaskView> WatchFeed::Refresh(const std::set<std::int32_t>& visible, std::int64_t now) {
  std::size_t budget = kRefreshBudget;
  // What is known stays in doubt until all of this has gone well.
  const bool was_known = std::exchange(is_known_, false);
  if (!was_known || ListsNow(now)) {
    List(now);
  } else if (now - members_checked_ >= kMembersInterval) {
    budget -= std::min(CheckMembers(now), budget / 2);
  }
  std::vector<TaskView> tasks;
  std::set<std::int32_t> shown = visible;
  for (const auto& [id, task] : tasks_) {
    tasks.push_back(task);
    if (visible.empty()) {
      shown.insert(shown.end(), id);
    }
  }
  Ask(plan_.Next(tasks, shown, budget, now));
  is_known_ = true;
  return Shown();
}

bool WatchFeed::ListsNow(std::int64_t now) const {
  const auto& selection = source_->Selection();
  if (tasks_.size() <= kFewTasks && !selection.scan) {
    return true;
  }
  // Otherwise new tasks are found by the file.
  return selection.ids.empty() && (selection.scan || !source_->HasPlans()) &&
         now - listed_ >= kListInterval;
}

void WatchFeed::List(std::int64_t now) {
  source_->ReadPlansAgain();
  auto answer = source_->Query({});
  std::map<std::int32_t, TaskView> before = std::exchange(tasks_, {});
  for (TaskView& task : answer.tasks) {
    // The list has no groups of values.
    if (const auto known = before.find(task.id);
        known != before.end() && IsSameResult(known->second, task)) {
      task.last = std::move(known->second.last);
    }
    tasks_.emplace_hint(tasks_.end(), task.id, std::move(task));
  }
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
  client::StatisticsMap results = source_->Sender().Statistics(request);
  for (const auto& [id, groups] : request) {
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
