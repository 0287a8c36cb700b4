// What the Sender API tells of the tests' results.

#ifndef IPSLA_API_STATISTICS_JSON_H_
#define IPSLA_API_STATISTICS_JSON_H_

#include "api/sender_api_message.h"
#include "config/json_text.h"
#include "config/task_config.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// Adds the array "tasks" to `reply`: what was asked for and has a result, ascending by id. Ids
/// beyond 16 bits: kept-behaviours.md#requests-are-read-leniently. No run is stored meanwhile, so
/// that no object mixes two. Always 0.
[[nodiscard]] int SerializeTasksMetrics(cJSON* reply, const StatisticsRequest& request,
                                        const SlaTaskMap& tasks, StatisticsStore& statistics);

}  // namespace ipsla

#endif  // IPSLA_API_STATISTICS_JSON_H_
