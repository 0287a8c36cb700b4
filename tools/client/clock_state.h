// Whether this machine's clock is synchronised: one-way values are differences between two
// machines' clocks.

#ifndef IPSLA_TOOLS_CLIENT_CLOCK_STATE_H_
#define IPSLA_TOOLS_CLIENT_CLOCK_STATE_H_

#include <sys/timex.h>

#include <optional>
#include <string>

namespace ipsla::client {

/// What the kernel says of its real-time clock.
struct ClockState {
  std::optional<bool> synchronised{};  ///< none: it could not be asked
  /// How far the clock is off, in milliseconds, as the program that disciplines it estimates, and
  /// at most. None unless the clock is synchronised: they are left-overs then.
  std::optional<double> estimated_error_ms{}, maximum_error_ms{};
};

/// Asks adjtimex(2), changing nothing; needs no privileges. Any thread.
[[nodiscard]] ClockState ReadClockState();

/// What a result of adjtimex(2) (-1: it failed) and the values it filled in mean. Pure.
[[nodiscard]] ClockState ClockStateFrom(int result, const timex& values);

/// "synchronised, estimated error 0.05 ms", "not synchronised" or "unknown".
[[nodiscard]] std::string ClockText(const ClockState& clock);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_CLOCK_STATE_H_
