// The tasks that `watch` shows, kept up to date without filling the daemon's log.

#ifndef IPSLA_TOOLS_CTL_WATCH_FEED_H_
#define IPSLA_TOOLS_CTL_WATCH_FEED_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ctl/refresh_plan.h"
#include "ctl/task_source.h"

namespace ipsla::ctl {

/// Few tasks are asked for anew at each refresh. Of many, each refresh asks for what is shown, and
/// looks seldom which tasks there are: by the tasks file every half minute, without one by listing
/// all results every five.
class WatchFeed {
 public:
  /// `wanted`: the groups that the output needs.
  WatchFeed(TaskSource* source, std::set<std::string> wanted);

  /// The tasks as they are now, `now` in seconds since the epoch, ascending by id. `visible`: the
  /// ids that are shown; empty: all. Throws ClientError; the next call then begins afresh.
  [[nodiscard]] std::vector<client::TaskView> Refresh(const std::set<std::int32_t>& visible,
                                                      std::int64_t now);

  /// Asks at once for those of these tasks whose result has no values yet, or older ones than a
  /// list told of; returns them, none when all is known. What it costs the next refresh has less.
  /// Throws ClientError.
  [[nodiscard]] std::vector<client::TaskView> Complete(const std::set<std::int32_t>& ids,
                                                       std::int64_t now);

  /// How many tasks have a result that is still to be asked for.
  [[nodiscard]] std::size_t DueCount() const { return due_.size(); }
  /// More than each refresh asks for.
  [[nodiscard]] bool HasMany() const;

 private:
  // Whether it is time to ask which tasks there are.
  [[nodiscard]] bool ListsNow(std::int64_t now) const;
  /// Lists the tasks, without values.
  void List(std::int64_t now);
  /// Looks which tasks there are, by their status; returns what that wrote into the log.
  [[nodiscard]] std::size_t CheckMembers(std::int64_t now);
  void Ask(const StatisticsRequest& request);
  [[nodiscard]] std::vector<client::TaskView> Shown() const;

  // Where answers come from, and which to ask for next.
  TaskSource* const source_;
  RefreshPlan plan_;
  bool is_known_ = false;  // tasks_ is what the daemon had
  // Times in seconds, and the tasks as last seen.
  std::int64_t members_checked_ = 0, listed_ = 0;
  std::map<std::int32_t, client::TaskView> tasks_;
  std::set<std::int32_t> due_;  // of tasks_, whose listed result was not asked for
  std::size_t spent_ = 0;       // bytes of log since the last refresh
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_WATCH_FEED_H_
