// Which tasks a refresh of `watch` asks for. Pure.
//
// The daemon writes every request and reply into a log that keeps 1 MiB: 500 tasks with all their
// values are half of it. So a refresh has a budget of log bytes. What is shown comes first, the
// task that was not asked for longest before the others; what is out of sight only when it has a
// new result or may have one.

#ifndef IPSLA_TOOLS_CTL_REFRESH_PLAN_H_
#define IPSLA_TOOLS_CTL_REFRESH_PLAN_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "api/sender_api_message.h"
#include "client/task_view.h"

namespace ipsla::ctl {

/// About what one refresh may write into the daemon's log, bytes.
inline constexpr std::size_t kRefreshBudget = std::size_t{48} << 10;

/// About what asking for one task, for the status of one, and listing one writes into it.
[[nodiscard]] std::size_t LogBytesOfResult(const std::set<std::string>& groups);
inline constexpr std::size_t kLogBytesOfStatus = 64;

/// Listed tasks in place of those known before. A list has no values, so what is known of a task
/// stays until it is asked for, but for a new failure, which has none. `due`: ids whose listed
/// result is another than the one asked for; brought up to date.
[[nodiscard]] std::map<std::int32_t, client::TaskView> TakeListed(
    std::map<std::int32_t, client::TaskView> known, std::vector<client::TaskView> listed,
    std::set<std::int32_t>* due);

/// Of which tasks a refresh needs more than of others.
struct RefreshNeeds {
  std::set<std::int32_t> visible{};
  std::set<std::int32_t> due{};  ///< have a result that was not asked for
};

/// Which tasks to ask for next.
class RefreshPlan {
 public:
  /// `wanted`: the groups that the output needs.
  explicit RefreshPlan(std::set<std::string> wanted) : wanted_(std::move(wanted)) {}

  /// What to ask for now, in seconds since the epoch, and counts it as asked.
  [[nodiscard]] StatisticsRequest Next(const std::vector<client::TaskView>& tasks,
                                       const RefreshNeeds& needs, std::size_t budget,
                                       std::int64_t now);

  /// The groups that the output needs.
  [[nodiscard]] const std::set<std::string>& Wanted() const { return wanted_; }

 private:
  // Constant.
  const std::set<std::string> wanted_;
  std::map<std::int32_t, std::int64_t> asked_;  // when, by task id
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_REFRESH_PLAN_H_
