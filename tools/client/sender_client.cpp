#include "client/sender_client.h"

#include <limits>

#include "client/request_texts.h"

namespace ipsla::client {
namespace {

void Require(bool understood) {
  if (!understood) {
    throw ClientError(ClientError::Kind::kMalformed,
                      "a reply is not the JSON document that was asked for");
  }
}

}  // namespace

std::set<std::int32_t> AllTaskIds() {
  std::set<std::int32_t> ids;
  for (std::int32_t id = 0; id <= std::numeric_limits<std::uint16_t>::max(); ++id) {
    ids.insert(ids.end(), id);
  }
  return ids;
}

StatisticsMap SenderClient::ActiveStatistics(const std::set<std::string>& groups) const {
  StatisticsMap tasks;
  Require(ReadStatistics(
      api_.Query(ApiCommand::kGetAllActiveTaskStatistics, ActiveStatisticsRequest(groups)),
      &tasks));
  return tasks;
}

StatisticsMap SenderClient::Statistics(const StatisticsRequest& request) const {
  StatisticsMap tasks;
  for (const std::string& text : StatisticsRequests(request)) {
    Require(ReadStatistics(api_.Query(ApiCommand::kGetTaskStatistics, text), &tasks));
  }
  return tasks;
}

StatusMap SenderClient::Statuses(const std::set<std::int32_t>& ids) const {
  StatusMap tasks;
  for (const std::string& request : StatusRequests(ids)) {
    Require(ReadStatuses(api_.Query(ApiCommand::kGetTaskStatus, request), &tasks));
  }
  return tasks;
}

void SenderClient::ReloadTasks(std::chrono::milliseconds timeout) const {
  api_.Execute(ApiCommand::kParseTasksConfig, timeout);
}

void SenderClient::ReloadKeychain(std::chrono::milliseconds timeout) const {
  api_.Execute(ApiCommand::kParseKeychainConfig, timeout);
}

}  // namespace ipsla::client
