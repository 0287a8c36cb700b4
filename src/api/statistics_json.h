// The statistics document that answers the two statistics commands of the Sender API.

#ifndef IPSLA_API_STATISTICS_JSON_H_
#define IPSLA_API_STATISTICS_JSON_H_

#include "api/sender_api_message.h"
#include "config/json_text.h"
#include "config/task_config.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// Fills `reply` (an object) with {"tasks": [...]}: one object per requested id that has
/// statistics, in ascending id. Statistics are looked up by the low 16 bits of the id, the task by
/// the whole id, deliberately. Takes the statistics lock for the whole call. 0; -1 is reserved for
/// failure.
[[nodiscard]] int SerializeTasksMetrics(cJSON* reply, const StatisticsRequest& request,
                                        const SlaTaskMap& tasks, StatisticsStore& statistics);

}  // namespace ipsla

#endif  // IPSLA_API_STATISTICS_JSON_H_
