// The JSON bodies of requests, read into values.

#ifndef IPSLA_API_REQUEST_BODIES_H_
#define IPSLA_API_REQUEST_BODIES_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "api/sender_api_message.h"
#include "config/task_config.h"

struct cJSON;

namespace ipsla {

// Each gives nothing, after logging the reason, when the body is not what the command takes.

/// {"tasks": [{"sla-id": number, "metrics": [...]}, ...]}. Lenient:
/// kept-behaviours.md#requests-are-read-leniently
[[nodiscard]] std::optional<StatisticsRequest> ReadTasksToReport(const cJSON* body);

/// {"metrics": [...]}, for every scheduled task.
[[nodiscard]] std::optional<StatisticsRequest> ReadGroupsToReport(const cJSON* body,
                                                                  const SlaTaskMap& tasks);

/// {"tasks": [number, ...]}: the ids in their order, repeated ones too.
[[nodiscard]] std::optional<std::vector<std::int32_t>> ReadTasksToList(const cJSON* body);

}  // namespace ipsla

#endif  // IPSLA_API_REQUEST_BODIES_H_
