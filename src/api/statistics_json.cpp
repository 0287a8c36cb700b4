#include "api/statistics_json.h"

#include <cjson/cJSON.h>

namespace ipsla {
namespace {

void AddText(cJSON* object, const char* key, const std::string& text) {
  cJSON_AddStringToObject(object, key, text.c_str());
}

template <typename Number>
void AddNumber(cJSON* object, const char* key, Number value) {
  cJSON_AddNumberToObject(object, key, static_cast<double>(value));
}

void AddJitter(cJSON* group, const SlaTaskMetrics& metrics) {
  AddNumber(group, "sd-min", metrics.jitter_sd_min);
  AddNumber(group, "sd-avg", metrics.jitter_sd_avg);
  AddNumber(group, "sd-sd", metrics.jitter_sd_sd);
  AddNumber(group, "sd-max", metrics.jitter_sd_max);
  AddNumber(group, "ds-min", metrics.jitter_ds_min);
  AddNumber(group, "ds-avg", metrics.jitter_ds_avg);
  AddNumber(group, "ds-sd", metrics.jitter_ds_sd);
  AddNumber(group, "ds-max", metrics.jitter_ds_max);
}

void AddLoss(cJSON* group, const SlaTaskMetrics& metrics) {
  AddNumber(group, "sd-loss", metrics.sd_loss);
  AddNumber(group, "ds-loss", metrics.ds_loss);
  AddNumber(group, "sd-loss-pct", metrics.sd_loss_pct);
  AddNumber(group, "ds-loss-pct", metrics.ds_loss_pct);
  AddNumber(group, "late-arrival", metrics.late_arrival);
  AddNumber(group, "skipped", metrics.skipped);
  AddNumber(group, "duplicate", metrics.duplicate);
}

void AddLatency(cJSON* group, const SlaTaskMetrics& metrics) {
  AddNumber(group, "sd-min", metrics.latency_sd_min);
  AddNumber(group, "sd-avg", metrics.latency_sd_avg);
  AddNumber(group, "sd-max", metrics.latency_sd_max);
  AddNumber(group, "ds-min", metrics.latency_ds_min);
  AddNumber(group, "ds-avg", metrics.latency_ds_avg);
  AddNumber(group, "ds-max", metrics.latency_ds_max);
}

void AddOutOfSequence(cJSON* group, const SlaTaskMetrics& metrics) {
  AddNumber(group, "sd-out-of-sequence", metrics.sd_out_of_sequence);
  AddNumber(group, "ds-out-of-sequence", metrics.ds_out_of_sequence);
}

void AddRtt(cJSON* group, const SlaTaskMetrics& metrics) {
  AddNumber(group, "min", metrics.rtt_min);
  AddNumber(group, "avg", metrics.rtt_avg);
  AddNumber(group, "max", metrics.rtt_max);
}

void AddGroup(cJSON* object, const std::string& name, const SlaTaskMetrics& metrics) {
  using Writer = void (*)(cJSON*, const SlaTaskMetrics&);
  static const std::map<std::string, Writer> writers{{"jitter-values", AddJitter},
                                                     {"loss-values", AddLoss},
                                                     {"one-way-latency-values", AddLatency},
                                                     {"out-of-sequence-values", AddOutOfSequence},
                                                     {"rtt-values", AddRtt}};
  const auto writer = writers.find(name);
  if (writer != writers.end()) {
    writer->second(cJSON_AddObjectToObject(object, name.c_str()), metrics);
  }
}

/// The fixed keys, in their order. `task` is null when the task is not configured (any more).
void AddFixedKeys(cJSON* object, std::int32_t id, const SlaTaskStatistics& statistics,
                  const SlaTaskConfig* task) {
  const SlaTaskMetrics& last = statistics.last;
  AddNumber(object, "sla-id", id);
  AddText(object, "status", ResultToString(last.status));
  AddText(object, "error-description", last.error_description);
  AddNumber(object, "start-time", last.start_time);
  AddNumber(object, "finish-time", last.finish_time);
  AddNumber(object, "successful-count", statistics.successful_count);
  AddNumber(object, "failed-count", statistics.failed_count);
  if (task != nullptr && !task->measurement.vrf.empty()) {
    AddText(object, "vrf-instance", task->measurement.vrf);
  }
  const bool transmitted = task != nullptr && last.status == RunResult::kSuccessful;
  AddNumber(object, "transm-pkt-count", transmitted ? task->num_packets : 0);
  if (task != nullptr) {
    AddNumber(object, "test-type", static_cast<std::int32_t>(task->sla_type));
    AddText(object, "src-address", Ipv4ToString(task->measurement.src.sin_addr));
    AddText(object, "dst-address", Ipv4ToString(task->measurement.dst.sin_addr));
    AddText(object, "iface-name", task->measurement.if_name);
  }
  AddNumber(object, "sd-smp-count", last.sd_smp_count);
  AddNumber(object, "ds-smp-count", last.ds_smp_count);
  AddNumber(object, "sd-pkt-count", last.sd_pkt_count);
  AddNumber(object, "ds-pkt-count", last.ds_pkt_count);
}

}  // namespace

int SerializeTasksMetrics(cJSON* reply, const StatisticsRequest& request, const SlaTaskMap& tasks,
                          StatisticsStore& statistics) {
  const MutexLock lock(statistics.mutex);
  cJSON* array = cJSON_AddArrayToObject(reply, "tasks");
  for (const auto& [id, groups] : request) {
    const auto stored = statistics.tasks.find(static_cast<std::uint16_t>(id));
    if (stored == statistics.tasks.end()) {
      continue;
    }
    const auto task = tasks.find(id);
    JsonDocument object(cJSON_CreateObject());
    AddFixedKeys(object.get(), id, stored->second, task == tasks.end() ? nullptr : &task->second);
    for (const std::string& group : groups) {
      AddGroup(object.get(), group, stored->second.last);
    }
    cJSON_AddItemToArray(array, object.release());
  }
  return 0;
}

}  // namespace ipsla
