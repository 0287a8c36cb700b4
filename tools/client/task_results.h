// What the daemon's JSON replies say, as typed values. Pure: text in, values out.

#ifndef IPSLA_TOOLS_CLIENT_TASK_RESULTS_H_
#define IPSLA_TOOLS_CLIENT_TASK_RESULTS_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "config/task_config.h"

namespace ipsla::client {

/// A measured value; none when it is absent, not finite (the daemon writes null) or still at the
/// largest finite double, where minima and maxima start before the first sample.
using Value = std::optional<double>;

/// Milliseconds.
struct RttValues {
  Value min, avg, max;
};

/// Milliseconds, one direction. `deviation` is the standard deviation, of jitter only.
struct DirectionValues {
  Value min, avg, max, deviation;
};

/// Milliseconds, there (sd) and back (ds).
struct TwoWayValues {
  DirectionValues sd;  ///< source to destination
  DirectionValues ds;  ///< destination to source
};

/// Probes that did not count, and why; percent of those that went that way.
struct LossValues {
  std::int64_t sd_loss = 0, ds_loss = 0;  ///< probes
  Value sd_percent{}, ds_percent{};
  std::int64_t late_arrival = 0, skipped = 0, duplicate = 0;
};

/// Probes.
struct OutOfSequenceValues {
  std::int64_t sd = 0, ds = 0;
};

/// The last result of one task and its counts. Groups that were not asked for are absent.
struct TaskStatistics {
  std::int32_t id = 0;
  std::string status;                            ///< "successful", "fail" or "undefined"
  std::string error;                             ///< why the run failed
  std::int64_t start_time = 0, finish_time = 0;  ///< seconds since the epoch
  std::int64_t successful_count = 0, failed_count = 0;
  std::string vrf;                        ///< empty: the daemon's own network namespace
  SlaTestType type = SlaTestType::kNone;  ///< kNone: the task is not configured
  std::string src_address, dst_address, interface;
  std::int64_t transmitted = 0;  ///< configured probes per run; 0 after a failed run
  std::int64_t sd_samples = 0, ds_samples = 0, sd_packets = 0, ds_packets = 0;
  std::optional<RttValues> rtt;
  std::optional<TwoWayValues> latency, jitter;
  std::optional<LossValues> loss;
  std::optional<OutOfSequenceValues> out_of_sequence;
  std::string json;  ///< the object as it came, compact

  /// Whether the last run failed.
  [[nodiscard]] bool Failed() const { return status != "successful"; }
};

/// By task id.
using StatisticsMap = std::map<std::int32_t, TaskStatistics>;

/// Reads a statistics document and adds its tasks to `tasks`. False when it is none.
[[nodiscard]] bool ReadStatistics(std::string_view json, StatisticsMap* tasks);

/// Task id to its "schedule" flag, for every configured task that was asked for.
using StatusMap = std::map<std::int32_t, bool>;

/// Reads the reply to GET_TASK_STATUS, as ReadStatistics.
[[nodiscard]] bool ReadStatuses(std::string_view json, StatusMap* tasks);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_TASK_RESULTS_H_
