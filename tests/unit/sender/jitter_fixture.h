// What the tests of both jitter calculations share.

#ifndef IPSLA_TESTS_UNIT_SENDER_JITTER_FIXTURE_H_
#define IPSLA_TESTS_UNIT_SENDER_JITTER_FIXTURE_H_

#include <cstdint>
#include <limits>

#include "sender/sender_metric_funcs.h"
#include "sender/task_metrics.h"

namespace ipsla::test {

/// What a minimum holds that no sample has touched; a maximum holds its negative.
inline constexpr double kMax = std::numeric_limits<double>::max();

/// A millisecond in the 10 ns units of udp-jitter stamps.
inline constexpr std::uint64_t kMs = 100000;

/// The metrics of a run that begins.
inline SlaTaskMetrics FreshMetrics(SlaTestType type) {
  SlaTaskMetrics metrics;
  ResetMetrics(type, &metrics);
  return metrics;
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SENDER_JITTER_FIXTURE_H_
