#include "client/task_plan.h"

#include <algorithm>
#include <cinttypes>

#include <cjson/cJSON.h>

#include "config/json_text.h"

namespace ipsla::client {
namespace {

std::string TextOf(const cJSON* object, const char* key) {
  const char* text = cJSON_GetStringValue(cJSON_GetObjectItem(object, key));
  return text == nullptr ? "" : text;
}

/// A life as the daemon reads it: "forever", else the leading decimal number of the text.
std::optional<std::int64_t> LifeOf(const cJSON* life) {
  if (cJSON_IsNumber(life) != 0) {
    return life->valueint;
  }
  const char* text = cJSON_GetStringValue(life);
  if (text == nullptr || std::string_view(text) == "forever") {
    return std::nullopt;
  }
  return strtoimax(text, nullptr, 10);
}

TaskPlan PlanOf(const cJSON* task) {
  TaskPlan plan;
  const std::string type = TextOf(task, "sla-type");
  plan.type = TestTypeFromString(type);
  plan.vrf = TextOf(task, "vrf-instance");
  const cJSON* measurement = cJSON_GetObjectItem(task, type.c_str());
  plan.src_address = TextOf(measurement, "src-address");
  plan.dst_address = TextOf(measurement, "dst-address");
  plan.interface = plan.src_address.empty() ? TextOf(measurement, "src-interface") : "";
  const cJSON* dscp = cJSON_GetObjectItem(measurement, "dscp");
  if (cJSON_IsNumber(dscp) != 0) {
    plan.dscp = dscp->valueint;
  }
  const cJSON* scheduler = cJSON_GetObjectItem(task, "scheduler");
  const cJSON* period = cJSON_GetObjectItem(scheduler, "time");
  plan.period_s = cJSON_IsNumber(period) != 0 ? std::max(period->valueint, 0) : 0;
  plan.life_s = LifeOf(cJSON_GetObjectItem(scheduler, "life-time"));
  return plan;
}

}  // namespace

std::optional<TaskPlans> ReadTaskPlans(std::string_view text) {
  const JsonParse parsed = ParseJson(text);
  const cJSON* tasks = cJSON_GetObjectItem(parsed.document.get(), "IP-SLA-tasks");
  if (cJSON_IsArray(tasks) == 0) {
    return std::nullopt;
  }
  TaskPlans plans;
  const cJSON* task = nullptr;
  cJSON_ArrayForEach(task, tasks) {
    const cJSON* id = cJSON_GetObjectItem(task, "sla-id");
    if (cJSON_IsNumber(id) != 0) {
      // The daemon keeps the low 16 bits.
      plans.emplace(static_cast<std::uint16_t>(id->valueint), PlanOf(task));
    }
  }
  return plans;
}

}  // namespace ipsla::client
