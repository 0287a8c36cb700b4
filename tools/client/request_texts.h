// JSON bodies of requests, cut so that each fits the one datagram that a request is. Pure.

#ifndef IPSLA_TOOLS_CLIENT_REQUEST_TEXTS_H_
#define IPSLA_TOOLS_CLIENT_REQUEST_TEXTS_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "api/sender_api_message.h"

namespace ipsla::client {

/// Bodies of GET_TASK_STATISTICS for these tasks, each with its groups.
[[nodiscard]] std::vector<std::string> StatisticsRequests(const StatisticsRequest& request);
/// The same groups for each.
[[nodiscard]] std::vector<std::string> StatisticsRequests(const std::set<std::int32_t>& ids,
                                                          const std::set<std::string>& groups);

/// Body of GET_ALL_ACTIVE_TASK_STATISTICS.
[[nodiscard]] std::string ActiveStatisticsRequest(const std::set<std::string>& groups);

/// Bodies of GET_TASK_STATUS for these tasks.
[[nodiscard]] std::vector<std::string> StatusRequests(const std::set<std::int32_t>& ids);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_REQUEST_TEXTS_H_
