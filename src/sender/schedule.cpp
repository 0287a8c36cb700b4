#include "sender/schedule.h"

#include <cerrno>
#include <cinttypes>
#include <stdexcept>
#include <string>

#include "env/time_values.h"

namespace ipsla {

namespace {

[[noreturn]] void ThrowUnparsable(const std::string& text) {
  throw std::runtime_error("Cannot parse time string: " + text);
}

// Nanoseconds since the epoch of a start given as text, on the local calendar of `now`.
std::int64_t ParseStart(const std::string& text, const timespec& now) {
  tzset();  // mktime re-reads the time zone; the date must be taken in the same one
  tm today{};
  if (localtime_r(&now.tv_sec, &today) == nullptr) ThrowUnparsable(text);
  today.tm_hour = 0;
  today.tm_min = 0;
  today.tm_sec = 0;
  today.tm_isdst = -1;  // the day named may lie in the other half of the year
  for (const char* format : {"%H:%M:%S", "%B %d %H:%M:%S", "%B %d"}) {
    tm start = today;  // a format that fails may have filled some fields
    if (strptime(text.c_str(), format, &start) == nullptr) continue;
    return ToNanoseconds({.tv_sec = mktime(&start), .tv_nsec = 0});
  }
  ThrowUnparsable(text);
}

// Seconds of life from decimal text; what is not a number reads as 0.
std::int64_t ParseLife(const std::string& text) {
  constexpr int kDecimal = 10;
  errno = 0;
  const std::intmax_t seconds = strtoimax(text.c_str(), nullptr, kDecimal);
  if (seconds == INTMAX_MAX && errno == ERANGE) ThrowUnparsable(text);
  return seconds;
}

// `start` plus so many seconds, or "forever" when the clock cannot count that far.
std::int64_t EndOfLife(std::int64_t start, std::int64_t life_seconds) {
  std::int64_t life = 0;
  std::int64_t end = 0;
  const bool overflow = __builtin_mul_overflow(life_seconds, kNanosecondsPerSecond, &life) ||
                        __builtin_add_overflow(start, life, &end);
  return overflow ? kForever : end;
}

}  // namespace

std::optional<FirstStart> ComputeFirstStart(const SlaSchedulerConfig& scheduler,
                                            const timespec& now) {
  const std::int64_t now_nanoseconds = ToNanoseconds(now);
  const std::int64_t start =
      scheduler.start_time == "now" ? now_nanoseconds : ParseStart(scheduler.start_time, now);

  FirstStart first;
  if (scheduler.life_time == "forever") {
    first.end_of_life = kForever;
  } else {
    const std::int64_t life = ParseLife(scheduler.life_time);
    if (life < 0) return std::nullopt;
    first.end_of_life = EndOfLife(start, life);
  }

  // Whole seconds, cut toward zero, negative for
  // kept-behaviours.md#a-start-in-the-past-waits-for-weeks
  const auto seconds = static_cast<std::int32_t>((start - now_nanoseconds) / kNanosecondsPerSecond);
  first.delay_ms = static_cast<std::uint32_t>(seconds) * 1000U;
  return first;
}

}  // namespace ipsla
