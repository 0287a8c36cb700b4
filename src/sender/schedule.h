// When a test starts for the first time and when its life ends.

#ifndef IPSLA_SENDER_SCHEDULE_H_
#define IPSLA_SENDER_SCHEDULE_H_

#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>

#include "config/task_config.h"

namespace ipsla {

/// End of life of a test that never ends.
inline constexpr std::int64_t kForever = std::numeric_limits<std::int64_t>::max();

/// When a task begins for the first time.
struct FirstStart {
  std::int64_t end_of_life = 0;  ///< nanoseconds since the epoch
  std::uint32_t delay_ms = 0;    ///< kept-behaviours.md#a-start-in-the-past-waits-for-weeks
};

/// Interprets "Start-time" and "life-time" at the moment `now`, in local time. Nothing when the
/// life time is negative: the test is never started. Throws std::runtime_error "Cannot parse time
/// string: <text>". Start: "now", "%H:%M:%S" (today), "%B %d %H:%M:%S", "%B %d" (this year,
/// 00:00:00), as strptime(3) reads them. Life: "forever" or decimal seconds; other text reads as 0.
/// An end beyond the clock's range means forever.
[[nodiscard]] std::optional<FirstStart> ComputeFirstStart(const SlaSchedulerConfig& scheduler,
                                                          const timespec& now);

}  // namespace ipsla

#endif  // IPSLA_SENDER_SCHEDULE_H_
