#include "ctl/task_order.h"

#include <algorithm>
#include <utility>

namespace ipsla::ctl {
namespace {

using client::Value;

/// What is large comes first; none last.
Value Weight(SortKey key, const TaskView& task, const TaskRules& rules) {
  switch (key) {
    case SortKey::kFailing:
      return CountsAsFailing(task, rules) ? 1 : 0;
    case SortKey::kAge:
      if (const auto age = client::AgeOf(task, rules.now)) {
        return static_cast<double>(*age);
      }
      return std::nullopt;
    case SortKey::kRtt:
      return task.last ? Figures(*task.last).rtt : std::nullopt;
    case SortKey::kLoss:
      return task.last ? Figures(*task.last).loss : std::nullopt;
    case SortKey::kId:
      break;
  }
  return 0;
}

}  // namespace

const std::vector<std::string>& SortKeyNames() {
  static const std::vector<std::string> names{"failing", "id", "age", "rtt", "loss"};
  return names;
}

SortKey SortKeyOf(const std::string& name, bool for_program) {
  if (name.empty()) {
    return for_program ? SortKey::kId : SortKey::kFailing;
  }
  const auto& names = SortKeyNames();
  return static_cast<SortKey>(std::find(names.begin(), names.end(), name) - names.begin());
}

void SortTasks(SortKey key, const TaskRules& rules, std::vector<TaskView>* tasks) {
  std::vector<std::pair<Value, std::size_t>> order;
  for (std::size_t index = 0; index < tasks->size(); ++index) {
    order.emplace_back(Weight(key, (*tasks)[index], rules), index);
  }
  // An empty optional is less than any value.
  std::sort(order.begin(), order.end(), [tasks](const auto& one, const auto& other) {
    return one.first != other.first ? one.first > other.first
                                    : (*tasks)[one.second].id < (*tasks)[other.second].id;
  });
  std::vector<TaskView> sorted;
  sorted.reserve(tasks->size());
  for (const auto& [weight, index] : order) {
    sorted.push_back(std::move((*tasks)[index]));
  }
  *tasks = std::move(sorted);
}

}  // namespace ipsla::ctl
