// Asks the daemon for its tasks without filling its log: it writes every request and reply into a
// file that holds 1 MiB, so nothing is asked for that is not needed.

#ifndef IPSLA_TOOLS_CLIENT_TASK_QUERY_H_
#define IPSLA_TOOLS_CLIENT_TASK_QUERY_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "client/sender_client.h"
#include "client/task_plan.h"
#include "client/task_view.h"

namespace ipsla::client {

/// Which tasks: these ids, or all that are scheduled and have run. `all`: also those that have not
/// run yet, as far as the plans name them.
struct TaskSelection {
  std::set<std::int32_t> ids{};
  bool all = false;
  /// With `all`: finds them by asking for every id there can be, which is dear (see
  /// SenderClient::Statuses).
  bool scan = false;
};

/// What there is of a selection.
struct TaskAnswer {
  std::vector<TaskView> tasks;        ///< in ascending id
  std::vector<std::int32_t> unknown;  ///< ids of the selection that no task has
};

/// The groups of values that a type measures; all of them for kNone.
[[nodiscard]] const std::set<std::string>& MeasuredGroups(SlaTestType type);

/// Last results of these tasks. One that turns out to be of another type than the request was made
/// for is asked for again, with those of the `wanted` groups that its type measures. Throws
/// ClientError.
[[nodiscard]] StatisticsMap QueryResults(const SenderClient& sender,
                                         const StatisticsRequest& request,
                                         const std::set<std::string>& wanted);

/// Asks for the selected tasks, with those of the `wanted` groups that each type measures. `plans`
/// may be empty. Throws ClientError.
[[nodiscard]] TaskAnswer QueryTasks(const SenderClient& sender, const TaskSelection& selection,
                                    const TaskPlans& plans, const std::set<std::string>& wanted);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_TASK_QUERY_H_
