// What the Sender API tells of the tests' results.

#ifndef IPSLA_API_STATISTICS_JSON_H_
#define IPSLA_API_STATISTICS_JSON_H_

#include "api/sender_api_message.h"
#include "config/json_text.h"
#include "config/task_config.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// Adds "tasks" to the object `reply`: an array with one object for each requested task of which a
/// result is known, by ascending id. An id beyond 16 bits shows the results of its low half,
/// without the configuration. Holds the statistics lock throughout, so that each object is of one
/// run. Always 0.
[[nodiscard]] int SerializeTasksMetrics(cJSON* reply, const StatisticsRequest& request,
                                        const SlaTaskMap& tasks, StatisticsStore& statistics);

}  // namespace ipsla

#endif  // IPSLA_API_STATISTICS_JSON_H_
