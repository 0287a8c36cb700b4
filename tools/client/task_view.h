// One task as the tools show it: its last result, and which figures of it mean something. Pure.

#ifndef IPSLA_TOOLS_CLIENT_TASK_VIEW_H_
#define IPSLA_TOOLS_CLIENT_TASK_VIEW_H_

#include <cstdint>
#include <optional>
#include <string>

#include "client/task_plan.h"
#include "client/task_results.h"

namespace ipsla::client {

/// A configured task, with its last result when it has one and what the tasks file says of it when
/// that is known.
struct TaskView {
  std::int32_t id = 0;
  bool scheduled = true;
  std::optional<TaskStatistics> last{};
  std::optional<TaskPlan> plan{};

  /// The last run failed.
  [[nodiscard]] bool Failed() const { return last && last->Failed(); }
  /// The type of the last result, else of the plan.
  [[nodiscard]] SlaTestType Type() const;
};

/// The figures of one result. None for what the type does not measure, for all of a failed run, and
/// for all of a run without a usable reply.
struct TaskFigures {
  Value rtt;                     ///< average, ms
  Value latency_sd, latency_ds;  ///< averages, ms
  /// Standard deviations of the latency, ms: the jitter's own minimum, average and maximum are kept
  /// but not measured.
  Value jitter_sd, jitter_ds;
  Value loss;              ///< probes without a reply, percent of those sent
  Value loss_sd, loss_ds;  ///< percent; none when replies that were not usable falsify them
};
[[nodiscard]] TaskFigures Figures(const TaskStatistics& task);

/// The run counts as successful, and yet no reply of it could be used: the sender's calculation
/// leaves out replies whose stamps make no sense, which for udp-jitter-ntp are all. Known of
/// udp-jitter-ntp always, of other types only when "rtt-values" were asked for.
[[nodiscard]] bool HasNoUsableReplies(const TaskStatistics& task);

/// Whether the directions' losses of a run can be believed: a reply that was left out of the
/// samples is missing in one of the two counts, which may then even be negative.
[[nodiscard]] bool AreDirectionLossesSound(const TaskStatistics& task);

/// Why there are no figures: the error of a failed run, or "no usable replies". Empty when there
/// are some, or no result.
[[nodiscard]] std::string ReasonOf(const TaskView& task);

/// Seconds since the last run ended, 0 when the clock was set back; none without a result. `now`:
/// seconds since the epoch.
[[nodiscard]] std::optional<std::int64_t> AgeOf(const TaskView& task, std::int64_t now);

/// Whether a result still speaks of the present.
struct Freshness {
  std::optional<bool> stale{};  ///< none: no result, or neither period nor limit is known
  std::string reason{};         ///< why it is stale, for people; else empty
};

/// Stale is a result older than twice the task's period, one older than `max_age_s` (when given),
/// and one of a task whose life has certainly ended.
[[nodiscard]] Freshness FreshnessOf(const TaskView& task, std::int64_t now,
                                    std::optional<std::int64_t> max_age_s);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_TASK_VIEW_H_
