#include "sender/sender_metric_funcs.h"

#include <algorithm>
#include <limits>

#include "log/log.h"

namespace ipsla {

namespace {

constexpr double kLargest = std::numeric_limits<double>::max();

}  // namespace

void ResetMetrics(SlaTestType type, SlaTaskMetrics* metrics) {
  // The next start is computed from this run's, so it outlives the reset.
  const std::int64_t start_time = metrics->start_time;
  *metrics = SlaTaskMetrics{};
  metrics->start_time = start_time;
  if (!IsJitterType(type)) return;
  metrics->latency_sd_min = kLargest;
  metrics->latency_sd_max = -kLargest;
  metrics->latency_ds_min = kLargest;
  metrics->latency_ds_max = -kLargest;
  metrics->rtt_min = kLargest;
  metrics->rtt_max = -kLargest;
}

void CalcEchoMetric(std::uint16_t id, std::span<SlaPacketRecord> records, SlaTaskMetrics* metrics) {
  double sum = 0;
  for (const SlaPacketRecord& record : records) {
    if (record.state == SlaPacketState::kSent) ++metrics->sd_smp_count;
    if (record.state != SlaPacketState::kReceived) continue;
    ++metrics->sd_smp_count;
    ++metrics->ds_smp_count;
    const double rtt = record.receive_ms - record.send_ms;
    sum += rtt;
    metrics->rtt_min = std::min(metrics->rtt_min, rtt);
    metrics->rtt_max = std::max(metrics->rtt_max, rtt);
    LOG_DEBUG(id,
              "Packet #%u\n\t[      S     ] ---- (   SDS  ) ---- [      S     ]\n"
              "\t[%-12.3f] ---- (%-8.3f) ---- [%-12.3f]",
              record.ss, record.send_ms, rtt, record.receive_ms);
  }
  metrics->rtt_smp_count = std::min(metrics->sd_smp_count, metrics->ds_smp_count);
  metrics->rtt_avg = sum / metrics->rtt_smp_count;
}

SlaTaskMetrics AggregateHistory(const std::list<SlaTaskMetrics>& history) {
  SlaTaskMetrics result = history.back();
  result.jitter_sd_min = kLargest;
  result.jitter_ds_min = kLargest;
  result.jitter_sd_max = -kLargest;
  result.jitter_ds_max = -kLargest;
  // The averages keep the newest run's own: kept-behaviours.md#the-newest-run-counts-twice
  int count = 0;
  for (const SlaTaskMetrics& run : history) {
    if (run.status == RunResult::kFail) continue;
    result.jitter_sd_min = std::min(result.jitter_sd_min, run.jitter_sd_min);
    result.jitter_ds_min = std::min(result.jitter_ds_min, run.jitter_ds_min);
    result.jitter_sd_max = std::max(result.jitter_sd_max, run.jitter_sd_max);
    result.jitter_ds_max = std::max(result.jitter_ds_max, run.jitter_ds_max);
    result.jitter_sd_avg += run.jitter_sd_avg;
    result.jitter_ds_avg += run.jitter_ds_avg;
    ++count;
  }
  if (count == 0) {
    result.jitter_sd_min = result.jitter_sd_avg = result.jitter_sd_max = 0;
    result.jitter_ds_min = result.jitter_ds_avg = result.jitter_ds_max = 0;
    return result;
  }
  result.jitter_sd_avg /= count;
  result.jitter_ds_avg /= count;
  return result;
}

}  // namespace ipsla
