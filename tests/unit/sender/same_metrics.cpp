#include "sender/same_metrics.h"

#include <cmath>
#include <utility>

namespace ipsla::test {

testing::AssertionResult SameMetrics(const SlaTaskMetrics& expected, const SlaTaskMetrics& actual) {
  using M = SlaTaskMetrics;
  static constexpr std::pair<const char*, std::int32_t M::*> kCounts[] = {
      {"sd_smp_count", &M::sd_smp_count},
      {"ds_smp_count", &M::ds_smp_count},
      {"rtt_smp_count", &M::rtt_smp_count},
      {"sd_pkt_count", &M::sd_pkt_count},
      {"ds_pkt_count", &M::ds_pkt_count},
      {"sd_loss", &M::sd_loss},
      {"ds_loss", &M::ds_loss},
      {"sd_out_of_sequence", &M::sd_out_of_sequence},
      {"ds_out_of_sequence", &M::ds_out_of_sequence},
      {"late_arrival", &M::late_arrival},
      {"skipped", &M::skipped},
      {"duplicate", &M::duplicate}};
  static constexpr std::pair<const char*, double M::*> kValues[] = {
      {"sd_loss_pct", &M::sd_loss_pct},
      {"ds_loss_pct", &M::ds_loss_pct},
      {"jitter_sd_min", &M::jitter_sd_min},
      {"jitter_sd_avg", &M::jitter_sd_avg},
      {"jitter_sd_sd", &M::jitter_sd_sd},
      {"jitter_sd_max", &M::jitter_sd_max},
      {"jitter_ds_min", &M::jitter_ds_min},
      {"jitter_ds_avg", &M::jitter_ds_avg},
      {"jitter_ds_sd", &M::jitter_ds_sd},
      {"jitter_ds_max", &M::jitter_ds_max},
      {"latency_sd_min", &M::latency_sd_min},
      {"latency_sd_avg", &M::latency_sd_avg},
      {"latency_sd_max", &M::latency_sd_max},
      {"latency_ds_min", &M::latency_ds_min},
      {"latency_ds_avg", &M::latency_ds_avg},
      {"latency_ds_max", &M::latency_ds_max},
      {"rtt_min", &M::rtt_min},
      {"rtt_avg", &M::rtt_avg},
      {"rtt_max", &M::rtt_max}};
  for (const auto& [name, field] : kCounts) {
    if (expected.*field == actual.*field) continue;
    return testing::AssertionFailure()
           << name << ": expected " << expected.*field << ", got " << actual.*field;
  }
  for (const auto& [name, field] : kValues) {
    const double a = expected.*field;
    const double b = actual.*field;
    if (a == b || (std::isnan(a) && std::isnan(b)) || std::fabs(a - b) <= 1e-12 * std::fabs(a)) {
      continue;
    }
    return testing::AssertionFailure() << name << ": expected " << a << ", got " << b;
  }
  if (expected.status != actual.status || expected.error_description != actual.error_description ||
      expected.start_time != actual.start_time || expected.finish_time != actual.finish_time) {
    return testing::AssertionFailure() << "status, text or times differ";
  }
  return testing::AssertionSuccess();
}

}  // namespace ipsla::test
