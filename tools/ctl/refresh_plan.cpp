#include "ctl/refresh_plan.h"

#include <algorithm>
#include <iterator>
#include <tuple>

#include "client/task_query.h"

namespace ipsla::ctl {
namespace {

using client::TaskView;

/// A result may come early all the same: a reload or a new address starts a task afresh.
constexpr std::int64_t kLongestUnasked = 60;

/// Whether both are of one run.
bool IsSameResult(const TaskView& one, const TaskView& other) {
  return one.last && other.last && one.last->start_time == other.last->start_time &&
         one.last->finish_time == other.last->finish_time &&
         one.last->successful_count == other.last->successful_count &&
         one.last->failed_count == other.last->failed_count;
}

/// Whether a run can have ended since the last result.
bool MayHaveNews(const TaskView& task, std::int64_t now) {
  return !task.last || !task.plan || now >= task.last->start_time + task.plan->period_s;
}

}  // namespace

std::size_t LogBytesOfResult(const std::set<std::string>& groups) {
  constexpr std::size_t kRequestAndFixedKeys = 520;
  constexpr std::size_t kGroup = 230;
  return kRequestAndFixedKeys + kGroup * groups.size();
}

std::map<std::int32_t, TaskView> TakeListed(std::map<std::int32_t, TaskView> known,
                                            std::vector<TaskView> listed,
                                            std::set<std::int32_t>* due) {
  std::map<std::int32_t, TaskView> tasks;
  for (TaskView& task : listed) {
    const auto before = known.find(task.id);
    if (!task.last) {
      due->erase(task.id);
    } else if (before != known.end() && IsSameResult(before->second, task)) {
      task.last = std::move(before->second.last);
    } else {
      const bool is_due_already = !due->insert(task.id).second;
      if (before != known.end() && before->second.last && !is_due_already && !task.Failed()) {
        task.last = std::move(before->second.last);
      }
    }
    tasks.emplace(task.id, std::move(task));
  }
  std::erase_if(*due, [&tasks](std::int32_t id) { return !tasks.contains(id); });
  return tasks;
}

StatisticsRequest RefreshPlan::Next(const std::vector<TaskView>& tasks, const RefreshNeeds& needs,
                                    std::size_t budget, std::int64_t now) {
  // Rank, when last asked for, id: the order of asking.
  enum Rank : std::uint8_t { kSeenWithNews, kDue, kSeen, kHidden };
  std::vector<std::tuple<Rank, std::int64_t, std::int32_t, const TaskView*>> queue;
  for (const TaskView& task : tasks) {
    const auto asked = asked_.try_emplace(task.id, 0).first->second;
    const bool is_visible = needs.visible.contains(task.id);
    const bool is_due = needs.due.contains(task.id);
    if (is_due || MayHaveNews(task, now) || now - asked >= kLongestUnasked) {
      queue.emplace_back(is_visible ? kSeenWithNews
                         : is_due   ? kDue
                                    : kHidden,
                         asked, task.id, &task);
    } else if (is_visible) {
      queue.emplace_back(kSeen, asked, task.id, &task);
    }
  }
  std::sort(queue.begin(), queue.end());
  StatisticsRequest request;
  for (const auto& [rank, asked, id, task] : queue) {
    std::set<std::string> groups;
    const auto& measured = client::MeasuredGroups(task->Type());
    std::set_intersection(wanted_.begin(), wanted_.end(), measured.begin(), measured.end(),
                          std::inserter(groups, groups.end()));
    const std::size_t cost = LogBytesOfResult(groups);
    if (cost > budget && !request.empty()) {
      break;
    }
    budget -= std::min(cost, budget);
    asked_[id] = now;
    request.emplace(id, std::move(groups));
  }
  return request;
}

}  // namespace ipsla::ctl
