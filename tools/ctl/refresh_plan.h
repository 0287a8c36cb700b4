// Which tasks a refresh of `watch` asks for. Pure.
//
// The daemon writes every request and reply into a log that keeps 1 MiB: 500 tasks with all their
// values are half of it. So a refresh has a budget of log bytes. What is shown comes first, the
// task that was not asked for longest before the others; what is out of sight only when it may have
// a new result.

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

/// Which tasks to ask for next.
class RefreshPlan {
 public:
  /// `wanted`: the groups that the output needs.
  explicit RefreshPlan(std::set<std::string> wanted) : wanted_(std::move(wanted)) {}

  /// What to ask for now, in seconds since the epoch, and counts it as asked. `visible`: ids.
  [[nodiscard]] StatisticsRequest Next(const std::vector<client::TaskView>& tasks,
                                       const std::set<std::int32_t>& visible, std::size_t budget,
                                       std::int64_t now);

 private:
  // Constant.
  const std::set<std::string> wanted_;
  std::map<std::int32_t, std::int64_t> asked_;  // when, by task id
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_REFRESH_PLAN_H_
