#include "client/task_results.h"

#include <cmath>
#include <limits>
#include <utility>

#include <cjson/cJSON.h>

#include "config/json_text.h"

namespace ipsla::client {
namespace {

/// cJSON writes the largest finite double with 15 digits, so that it reads back as infinite or just
/// below.
constexpr double kLargestValue = 1e300;

const cJSON* Find(const cJSON* object, const char* key) {
  return cJSON_GetObjectItemCaseSensitive(object, key);
}

Value ReadValue(const cJSON* object, const char* key) {
  const cJSON* item = Find(object, key);
  if (cJSON_IsNumber(item) == 0 || !std::isfinite(item->valuedouble) ||
      std::fabs(item->valuedouble) > kLargestValue) {
    return std::nullopt;
  }
  return item->valuedouble;
}

std::int64_t ReadInteger(const cJSON* object, const char* key) {
  constexpr double kExactIntegers = 9007199254740992.0;  // 2^53
  const Value value = ReadValue(object, key);
  return value && std::fabs(*value) <= kExactIntegers ? static_cast<std::int64_t>(*value) : 0;
}

std::string ReadText(const cJSON* object, const char* key) {
  const char* text = cJSON_GetStringValue(Find(object, key));
  return text == nullptr ? "" : text;
}

/// Nothing when the object has no usable id.
std::optional<std::int32_t> ReadId(const cJSON* object) {
  const Value id = ReadValue(object, "sla-id");
  if (!id || std::fabs(*id) > std::numeric_limits<std::int32_t>::max()) {
    return std::nullopt;
  }
  return static_cast<std::int32_t>(*id);
}

std::optional<RttValues> ReadRtt(const cJSON* task) {
  const cJSON* group = Find(task, "rtt-values");
  if (cJSON_IsObject(group) == 0) {
    return std::nullopt;
  }
  return RttValues{ReadValue(group, "min"), ReadValue(group, "avg"), ReadValue(group, "max")};
}

std::optional<TwoWayValues> ReadTwoWay(const cJSON* task, const char* key) {
  const cJSON* group = Find(task, key);
  if (cJSON_IsObject(group) == 0) {
    return std::nullopt;
  }
  return TwoWayValues{{ReadValue(group, "sd-min"), ReadValue(group, "sd-avg"),
                       ReadValue(group, "sd-max"), ReadValue(group, "sd-sd")},
                      {ReadValue(group, "ds-min"), ReadValue(group, "ds-avg"),
                       ReadValue(group, "ds-max"), ReadValue(group, "ds-sd")}};
}

std::optional<LossValues> ReadLoss(const cJSON* task) {
  const cJSON* group = Find(task, "loss-values");
  if (cJSON_IsObject(group) == 0) {
    return std::nullopt;
  }
  LossValues loss;
  loss.sd_loss = ReadInteger(group, "sd-loss");
  loss.ds_loss = ReadInteger(group, "ds-loss");
  loss.sd_percent = ReadValue(group, "sd-loss-pct");
  loss.ds_percent = ReadValue(group, "ds-loss-pct");
  loss.late_arrival = ReadInteger(group, "late-arrival");
  loss.skipped = ReadInteger(group, "skipped");
  loss.duplicate = ReadInteger(group, "duplicate");
  return loss;
}

std::optional<OutOfSequenceValues> ReadOutOfSequence(const cJSON* task) {
  const cJSON* group = Find(task, "out-of-sequence-values");
  if (cJSON_IsObject(group) == 0) {
    return std::nullopt;
  }
  return OutOfSequenceValues{ReadInteger(group, "sd-out-of-sequence"),
                             ReadInteger(group, "ds-out-of-sequence")};
}

TaskStatistics ReadTask(std::int32_t id, const cJSON* task) {
  TaskStatistics result;
  result.id = id;
  result.status = ReadText(task, "status");
  result.error = ReadText(task, "error-description");
  result.start_time = ReadInteger(task, "start-time");
  result.finish_time = ReadInteger(task, "finish-time");
  result.successful_count = ReadInteger(task, "successful-count");
  result.failed_count = ReadInteger(task, "failed-count");
  result.vrf = ReadText(task, "vrf-instance");
  const std::int64_t type = ReadInteger(task, "test-type");
  result.type = type >= 1 && type <= 5 ? static_cast<SlaTestType>(type) : SlaTestType::kNone;
  result.src_address = ReadText(task, "src-address");
  result.dst_address = ReadText(task, "dst-address");
  result.interface = ReadText(task, "iface-name");
  result.transmitted = ReadInteger(task, "transm-pkt-count");
  result.sd_samples = ReadInteger(task, "sd-smp-count");
  result.ds_samples = ReadInteger(task, "ds-smp-count");
  result.sd_packets = ReadInteger(task, "sd-pkt-count");
  result.ds_packets = ReadInteger(task, "ds-pkt-count");
  result.rtt = ReadRtt(task);
  result.latency = ReadTwoWay(task, "one-way-latency-values");
  result.jitter = ReadTwoWay(task, "jitter-values");
  result.loss = ReadLoss(task);
  result.out_of_sequence = ReadOutOfSequence(task);
  const JsonText text(cJSON_PrintUnformatted(task));
  result.json = text.get();
  return result;
}

/// Calls `take` (an id and the object) for each element of "tasks"; false when the document is no
/// such reply.
template <typename Take>
bool ForEachTask(std::string_view json, Take take) {
  const JsonParse parsed = ParseJson(json);
  const cJSON* tasks = Find(parsed.document.get(), "tasks");
  if (cJSON_IsArray(tasks) == 0) {
    return false;
  }
  const cJSON* task = nullptr;
  cJSON_ArrayForEach(task, tasks) {
    const auto id = ReadId(task);
    if (!id) {
      return false;
    }
    take(*id, task);
  }
  return true;
}

}  // namespace

bool ReadStatistics(std::string_view json, StatisticsMap* tasks) {
  return ForEachTask(json, [tasks](std::int32_t id, const cJSON* task) {
    tasks->insert_or_assign(id, ReadTask(id, task));
  });
}

bool ReadStatuses(std::string_view json, StatusMap* tasks) {
  return ForEachTask(json, [tasks](std::int32_t id, const cJSON* task) {
    tasks->insert_or_assign(id, cJSON_IsTrue(Find(task, "status")) != 0);
  });
}

}  // namespace ipsla::client
