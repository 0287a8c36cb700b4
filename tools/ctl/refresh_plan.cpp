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

StatisticsRequest RefreshPlan::Next(const std::vector<TaskView>& tasks,
                                    const std::set<std::int32_t>& visible, std::size_t budget,
                                    std::int64_t now) {
  // Out of sight or not, when last asked for, id: the order of asking.
  std::vector<std::tuple<bool, std::int64_t, std::int32_t, const TaskView*>> queue;
  for (const TaskView& task : tasks) {
    const auto asked = asked_.try_emplace(task.id, 0).first->second;
    const bool is_visible = visible.contains(task.id);
    if (is_visible || MayHaveNews(task, now) || now - asked >= kLongestUnasked) {
      queue.emplace_back(!is_visible, asked, task.id, &task);
    }
  }
  std::sort(queue.begin(), queue.end());
  StatisticsRequest request;
  for (const auto& [is_hidden, asked, id, task] : queue) {
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
