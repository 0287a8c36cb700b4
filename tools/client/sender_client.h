// The daemon's commands as calls with typed results.

#ifndef IPSLA_TOOLS_CLIENT_SENDER_CLIENT_H_
#define IPSLA_TOOLS_CLIENT_SENDER_CLIENT_H_

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "client/api_client.h"
#include "client/task_results.h"

namespace ipsla::client {

/// Every task id there can be.
[[nodiscard]] std::set<std::int32_t> AllTaskIds();

/// Threads: one at a time in a process (JSON parsing). Every operation throws ClientError.
class SenderClient {
 public:
  explicit SenderClient(ClientOptions options) : api_(std::move(options)) {}

  /// Last results of all scheduled tasks; a task that has not finished a run yet is absent.
  [[nodiscard]] StatisticsMap ActiveStatistics(const std::set<std::string>& groups) const;

  /// Last results of these tasks with the groups of each, as above.
  [[nodiscard]] StatisticsMap Statistics(const StatisticsRequest& request) const;

  /// Which of these are configured, and whether they are scheduled. The daemon logs request and
  /// reply, so asking for AllTaskIds() pushes 1 MB through a log that keeps no more.
  [[nodiscard]] StatusMap Statuses(const std::set<std::int32_t>& ids) const;

  /// Makes the daemon read a file again. A reload takes the daemon at least 10 ms per task.
  void ReloadTasks(std::chrono::milliseconds timeout) const;
  /// kEnded: the file could not be read, which ends the daemon.
  void ReloadKeychain(std::chrono::milliseconds timeout) const;

  /// For questions that have no operation here.
  [[nodiscard]] const ApiClient& Api() const { return api_; }

 private:
  // Constant.
  ApiClient api_;
};

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_SENDER_CLIENT_H_
