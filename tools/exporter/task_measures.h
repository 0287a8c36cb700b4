// What one result of a task says in base units, with only the values that its type measures. Pure.

#ifndef IPSLA_TOOLS_EXPORTER_TASK_MEASURES_H_
#define IPSLA_TOOLS_EXPORTER_TASK_MEASURES_H_

#include <cstdint>
#include <optional>

#include "client/task_view.h"

namespace ipsla::exporter {

/// A number, or none.
using client::Value;

/// The daemon's figures are in milliseconds and percent.
inline constexpr double kMillisecondsPerSecond = 1000.0;
inline constexpr double kPercent = 100.0;

/// Smallest, mean and largest time of a run, seconds.
struct TimeMeasures {
  Value min, mean, max;
};

/// Probes of a run. Those that the type does not count are absent.
struct PacketMeasures {
  std::int64_t sent = 0, received = 0;
  std::optional<std::int64_t> late{}, skipped{}, duplicate{};
};

/// The values of one run; all absent when it failed. SD is the direction from source to
/// destination, DS the way back.
struct TaskMeasures {
  TimeMeasures rtt;
  TimeMeasures delay_sd, delay_ds;
  Value jitter_sd, jitter_ds;             ///< standard deviation of the one-way delay, seconds
  Value loss;                             ///< probes without an accepted reply, 0..1
  Value loss_sd, loss_ds;                 ///< the same per direction, 0..1
  std::optional<PacketMeasures> packets;  ///< absent when the run failed
};

/// Leaves out what would be a number without a measurement behind it:
/// - everything of a failed run;
/// - the minimum round-trip time of the echo types, which is 0 whatever was measured, and all that
///   they do not measure;
/// - the directions of icmp-jitter's loss, which that protocol cannot tell apart;
/// - all but the counts of a run without a usable reply, as those of udp-jitter-ntp always are;
/// - a loss per direction that unusable or duplicated replies falsify.
[[nodiscard]] TaskMeasures MeasuresOf(const client::TaskStatistics& task);

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_TASK_MEASURES_H_
