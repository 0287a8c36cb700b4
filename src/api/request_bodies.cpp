#include "api/request_bodies.h"

#include <set>
#include <string>
#include <utility>

#include <cjson/cJSON.h>

#include "log/log.h"

namespace ipsla {
namespace {

std::optional<std::set<std::string>> RequestedGroups(const cJSON* object) {
  auto groups = ReadMetricGroups(cJSON_GetObjectItem(object, "metrics"));
  if (!groups) LOG_DEBUG(0, "cJSON_IsArray() failed: invalid requested metrics");
  return groups;
}

}  // namespace

std::optional<StatisticsRequest> ReadTasksToReport(const cJSON* body) {
  const cJSON* tasks = cJSON_GetObjectItem(body, "tasks");
  if (cJSON_IsArray(tasks) == 0) {
    LOG_DEBUG(0, "cJSON_IsArray() failed: invalid sla task object");
    return std::nullopt;
  }
  StatisticsRequest request;
  for (const cJSON* element = tasks->child; element != nullptr; element = element->next) {
    const cJSON* id = cJSON_GetObjectItem(element, "sla-id");
    if (id == nullptr) continue;
    auto groups = RequestedGroups(element);
    if (!groups) return std::nullopt;
    request.emplace(id->valueint, std::move(*groups));
  }
  return request;
}

std::optional<StatisticsRequest> ReadGroupsToReport(const cJSON* body, const SlaTaskMap& tasks) {
  const auto groups = RequestedGroups(body);
  if (!groups) return std::nullopt;
  StatisticsRequest request;
  for (const auto& [id, task] : tasks) {
    if (task.schedule) request.emplace(id, *groups);
  }
  return request;
}

std::optional<std::vector<std::int32_t>> ReadTasksToList(const cJSON* body) {
  const cJSON* tasks = cJSON_GetObjectItem(body, "tasks");
  if (cJSON_IsArray(tasks) == 0) {
    LOG_DEBUG(0, "cJSON_IsArray() failed: invalid requested tasks");
    return std::nullopt;
  }
  std::vector<std::int32_t> ids;
  for (const cJSON* element = tasks->child; element != nullptr; element = element->next) {
    ids.push_back(element->valueint);
  }
  return ids;
}

}  // namespace ipsla
