#include "client/task_query.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace ipsla::client {
namespace {

std::set<std::string> Intersection(const std::set<std::string>& one,
                                   const std::set<std::string>& other) {
  std::set<std::string> both;
  std::set_intersection(one.begin(), one.end(), other.begin(), other.end(),
                        std::inserter(both, both.end()));
  return both;
}

std::optional<TaskPlan> FindPlan(const TaskPlans& plans, std::int32_t id) {
  const auto plan = plans.find(id);
  return plan == plans.end() ? std::nullopt : std::optional(plan->second);
}

/// Exchanges the listed results, which have no groups, for such with the groups that are wanted.
void FetchGroups(const SenderClient& sender, const std::set<std::string>& wanted,
                 StatisticsMap* results) {
  StatisticsRequest request;
  for (const auto& [id, result] : *results) {
    auto groups = Intersection(wanted, MeasuredGroups(result.type));
    if (!groups.empty()) {
      request.emplace_hint(request.end(), id, std::move(groups));
    }
  }
  for (auto& [id, result] : sender.Statistics(request)) {
    results->insert_or_assign(id, std::move(result));
  }
}

StatisticsMap ListResults(const SenderClient& sender, const std::set<std::string>& wanted) {
  StatisticsMap results = sender.ActiveStatistics({});
  FetchGroups(sender, wanted, &results);
  return results;
}

StatisticsMap ResultsOf(const SenderClient& sender, const StatusMap& configured,
                        const TaskPlans& plans, const std::set<std::string>& wanted) {
  StatisticsRequest request;
  for (const auto& [id, scheduled] : configured) {
    // A file that was edited since the daemon read it may name another type.
    const auto plan = FindPlan(plans, id);
    const auto& measured = MeasuredGroups(plan ? plan->type : SlaTestType::kNone);
    request.emplace_hint(request.end(), id, Intersection(wanted, measured));
  }
  return QueryResults(sender, request, wanted);
}

/// The ids to ask for beyond those that have a result.
std::set<std::int32_t> Candidates(const TaskSelection& selection, const TaskPlans& plans,
                                  const StatisticsMap& results) {
  std::set<std::int32_t> ids;
  if (selection.scan) {
    ids = AllTaskIds();
  } else if (selection.all) {
    for (const auto& [id, plan] : plans) {
      ids.insert(ids.end(), id);
    }
  }
  for (const auto& [id, result] : results) {
    ids.erase(id);
  }
  return ids;
}

TaskAnswer Assemble(const StatusMap& configured, StatisticsMap results, const TaskPlans& plans) {
  TaskAnswer answer;
  for (const auto& [id, scheduled] : configured) {
    TaskView view{.id = id, .scheduled = scheduled, .plan = FindPlan(plans, id)};
    if (const auto result = results.find(id); result != results.end()) {
      view.last = std::move(result->second);
    }
    answer.tasks.push_back(std::move(view));
  }
  return answer;
}

}  // namespace

const std::set<std::string>& MeasuredGroups(SlaTestType type) {
  static const std::set<std::string> echo_groups{"rtt-values"};
  const bool is_echo = type == SlaTestType::kUdpEcho || type == SlaTestType::kIcmpEcho;
  return is_echo ? echo_groups : MetricGroupNames();
}

StatisticsMap QueryResults(const SenderClient& sender, const StatisticsRequest& request,
                           const std::set<std::string>& wanted) {
  StatisticsMap results = sender.Statistics(request);
  StatisticsMap again;
  for (const auto& [id, groups] : request) {
    const auto result = results.find(id);
    if (result == results.end()) {
      continue;
    }
    const auto needed = Intersection(wanted, MeasuredGroups(result->second.type));
    if (!std::includes(groups.begin(), groups.end(), needed.begin(), needed.end())) {
      again.emplace(id, result->second);
    }
  }
  FetchGroups(sender, wanted, &again);
  again.merge(results);
  return again;
}

TaskAnswer QueryTasks(const SenderClient& sender, const TaskSelection& selection,
                      const TaskPlans& plans, const std::set<std::string>& wanted) {
  if (selection.ids.empty()) {
    StatisticsMap results = ListResults(sender, wanted);
    StatusMap configured = sender.Statuses(Candidates(selection, plans, results));
    for (const auto& [id, result] : results) {
      configured.emplace(id, true);  // only scheduled tasks are listed
    }
    return Assemble(configured, std::move(results), plans);
  }
  const StatusMap configured = sender.Statuses(selection.ids);
  TaskAnswer answer = Assemble(configured, ResultsOf(sender, configured, plans, wanted), plans);
  for (const std::int32_t id : selection.ids) {
    if (!configured.contains(id)) {
      answer.unknown.push_back(id);
    }
  }
  return answer;
}

}  // namespace ipsla::client
