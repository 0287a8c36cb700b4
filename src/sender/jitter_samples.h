// What the two jitter calculations share: one-way samples by record position, and the closing steps
// over them. Private to the calculations.

#ifndef IPSLA_SENDER_JITTER_SAMPLES_H_
#define IPSLA_SENDER_JITTER_SAMPLES_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sender/task_metrics.h"

namespace ipsla {

/// One usable reply. Milliseconds.
struct JitterSample {
  double rtt = 0;
  double sd = 0;  ///< source to destination
  double ds = 0;  ///< destination to source
};

/// The usable replies of a run. `sd` and `ds` hold one entry per record position, 0 where there is
/// no sample.
struct JitterSamples {
  explicit JitterSamples(std::size_t count) : sd(count), ds(count) {}

  /// Latencies in milliseconds, by the place of the record; the sums are over all samples.
  std::vector<double> sd;
  std::vector<double> ds;
  JitterSample sum;
};

/// a + b and a - b in 32 bits, wrapping: sequence numbers and counters come from the peer and may
/// be anything.
[[nodiscard]] std::int32_t WrappingAdd(std::int32_t a, std::uint32_t b);
[[nodiscard]] std::int32_t WrappingSubtract(std::int32_t a, std::uint32_t b);

/// part / whole x 100, or nothing (0) when `whole` is not positive.
[[nodiscard]] double Percentage(std::int32_t part, std::int32_t whole);

/// Adds the sample of the record at `position` to arrays and sums and widens the three
/// minimum-maximum pairs by it.
void AddSample(const JitterSample& sample, std::size_t position, JitterSamples* samples,
               SlaTaskMetrics* metrics);

/// The per-packet line of both calculations. `number` heads it; the stamps are those of the record.
void LogSample(std::uint16_t id, std::uint32_t number, const SlaPacketRecord& record,
               const JitterSample& sample);

/// Follows the sequence numbers of answered probes in the responder's order: each forward jump adds
/// the numbers it left out to `sd_out_of_sequence`. `last` is the highest number so far, 0 at
/// first.
void FollowSequence(std::uint32_t sequence, std::uint32_t* last, SlaTaskMetrics* metrics);

/// Separates numbers left out because their probe was lost (`lost` of them) from those that merely
/// came late, takes the late ones out of the sample counts and derives `rtt_smp_count`.
void CorrectForLateArrivals(std::int32_t lost, SlaTaskMetrics* metrics);

/// Averages and the two jitter deviations, from `rtt_smp_count` and the samples.
void FinishSamples(const JitterSamples& samples, SlaTaskMetrics* metrics);

}  // namespace ipsla

#endif  // IPSLA_SENDER_JITTER_SAMPLES_H_
