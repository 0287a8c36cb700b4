#include "sender/jitter_samples.h"

#include <algorithm>
#include <cmath>

#include "log/log.h"

namespace ipsla {

namespace {

// Adds the squared distances of the first `count` samples from `average` to `start` and returns the
// root of their mean. Not all samples are among these:
// kept-behaviours.md#the-deviation-leaves-samples-out
double Deviation(double start, const std::vector<double>& values, std::int32_t count,
                 double average) {
  double sum = start;
  const std::size_t visited =
      count > 0 ? std::min(static_cast<std::size_t>(count), values.size()) : 0;
  for (std::size_t k = 0; k < visited; ++k) {
    if (values[k] != 0) sum += (values[k] - average) * (values[k] - average);
  }
  return std::sqrt(sum / count);
}

}  // namespace

std::int32_t WrappingAdd(std::int32_t a, std::uint32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + b);
}

std::int32_t WrappingSubtract(std::int32_t a, std::uint32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - b);
}

double Percentage(std::int32_t part, std::int32_t whole) {
  return whole > 0 ? static_cast<double>(part) / whole * 100 : 0;
}

void AddSample(const JitterSample& sample, std::size_t position, JitterSamples* samples,
               SlaTaskMetrics* metrics) {
  samples->sd[position] = sample.sd;
  samples->ds[position] = sample.ds;
  samples->sum.rtt += sample.rtt;
  samples->sum.sd += sample.sd;
  samples->sum.ds += sample.ds;
  metrics->rtt_min = std::min(metrics->rtt_min, sample.rtt);
  metrics->rtt_max = std::max(metrics->rtt_max, sample.rtt);
  metrics->latency_sd_min = std::min(metrics->latency_sd_min, sample.sd);
  metrics->latency_sd_max = std::max(metrics->latency_sd_max, sample.sd);
  metrics->latency_ds_min = std::min(metrics->latency_ds_min, sample.ds);
  metrics->latency_ds_max = std::max(metrics->latency_ds_max, sample.ds);
}

void LogSample(std::uint16_t id, std::uint32_t number, const SlaPacketRecord& record,
               const JitterSample& sample) {
  LOG_DEBUG(
      id,
      "Packet #%u\n\t<-------------------------------[%-8.3f]------------------------------->\n"
      "\t[    S   ] ---- (   SD   ) ---- [    D   ] ---- (   DS   ) ---- [    S   ]\n"
      "\t[%-8lu] ---- (%-8.3f) ---- [%-8lu] ---- (%-8.3f) ---- [%-8lu]",
      number, sample.rtt, record.send_stamp, sample.sd, record.remote_transmit_stamp, sample.ds,
      record.receive_stamp);
}

void FollowSequence(std::uint32_t sequence, std::uint32_t* last, SlaTaskMetrics* metrics) {
  const std::uint32_t expected = *last + 1;  // wraps to 0 behind the largest number
  if (sequence < expected) return;
  metrics->sd_out_of_sequence = WrappingAdd(metrics->sd_out_of_sequence, sequence - expected);
  *last = sequence;
}

void CorrectForLateArrivals(std::int32_t lost, SlaTaskMetrics* metrics) {
  const auto late = [lost](std::int32_t left_out) {
    return std::max(0, WrappingSubtract(left_out, static_cast<std::uint32_t>(lost)));
  };
  const std::int32_t sd_late = late(metrics->sd_out_of_sequence);
  const std::int32_t ds_late = late(metrics->ds_out_of_sequence);
  metrics->sd_out_of_sequence = sd_late;
  metrics->ds_out_of_sequence = ds_late;
  metrics->sd_smp_count =
      WrappingSubtract(metrics->sd_smp_count, static_cast<std::uint32_t>(sd_late));
  metrics->ds_smp_count =
      WrappingSubtract(metrics->ds_smp_count, static_cast<std::uint32_t>(ds_late));
  metrics->late_arrival = WrappingAdd(sd_late, static_cast<std::uint32_t>(ds_late));
  metrics->rtt_smp_count = std::min(metrics->sd_smp_count, metrics->ds_smp_count);
}

void FinishSamples(const JitterSamples& samples, SlaTaskMetrics* metrics) {
  const std::int32_t count = metrics->rtt_smp_count;
  metrics->rtt_avg = samples.sum.rtt / count;
  metrics->latency_sd_avg = samples.sum.sd / count;
  metrics->latency_ds_avg = samples.sum.ds / count;
  metrics->jitter_sd_sd =
      Deviation(metrics->jitter_sd_sd, samples.sd, count, metrics->latency_sd_avg);
  metrics->jitter_ds_sd =
      Deviation(metrics->jitter_ds_sd, samples.ds, count, metrics->latency_ds_avg);
}

}  // namespace ipsla
