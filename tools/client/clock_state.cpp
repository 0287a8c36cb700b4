#include "client/clock_state.h"

#include <array>
#include <cstdio>

namespace ipsla::client {
namespace {

constexpr double kMicrosecondsPerMillisecond = 1000;

}  // namespace

ClockState ReadClockState() {
  timex values{};
  const int result = adjtimex(&values);
  return ClockStateFrom(result, values);
}

ClockState ClockStateFrom(int result, const timex& values) {
  if (result < 0) {
    return {};
  }
  if (result == TIME_ERROR || (values.status & STA_UNSYNC) != 0) {
    return {.synchronised = false};
  }
  return {.synchronised = true,
          .estimated_error_ms = static_cast<double>(values.esterror) / kMicrosecondsPerMillisecond,
          .maximum_error_ms = static_cast<double>(values.maxerror) / kMicrosecondsPerMillisecond};
}

std::string ClockText(const ClockState& clock) {
  if (!clock.synchronised) {
    return "unknown";
  }
  if (!*clock.synchronised) {
    return "not synchronised";
  }
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "synchronised, estimated error %g ms",
                clock.estimated_error_ms.value_or(0));
  return text.data();
}

}  // namespace ipsla::client
