#include "env/time_values.h"

#include <atomic>
#include <cerrno>

#include <boost/endian/conversion.hpp>

namespace ipsla {
namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
constexpr std::uint64_t kMicrosecondsPerSecond = 1000000;

// Times before 1970 count from their own midnight, too.
std::int64_t SecondsOfDay(const timespec& time) {
  const std::int64_t seconds = time.tv_sec % kSecondsPerDay;
  return seconds < 0 ? seconds + kSecondsPerDay : seconds;
}

std::uint64_t Fraction(NtpStamp stamp) {
  return stamp & 0xFFFFFFFFU;
}

// Wraps for seconds before 1970; the difference of two such values is right all the same.
std::uint64_t UnixSeconds(NtpStamp stamp) {
  return (stamp >> 32U) - kNtpUnixOffset;
}

timespec SystemRealTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

constexpr Clocks kSystemClocks{&SystemRealTime, &std::chrono::steady_clock::now};
std::atomic<const Clocks*> clocks{&kSystemClocks};

}  // namespace

timespec RealTimeNow() {
  return clocks.load(std::memory_order_relaxed)->real_time();
}

SteadyTime SteadyNow() {
  return clocks.load(std::memory_order_relaxed)->steady();
}

void UseClocks(const Clocks* replacement) {
  clocks.store(replacement == nullptr ? &kSystemClocks : replacement, std::memory_order_relaxed);
}

void SleepUntil(SteadyTime deadline) {
  const std::int64_t nanoseconds = deadline.time_since_epoch().count();
  if (nanoseconds <= 0) return;  // the steady clock never reads less
  timespec until{};
  until.tv_sec = nanoseconds / kNanosecondsPerSecond;
  until.tv_nsec = nanoseconds % kNanosecondsPerSecond;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

std::int64_t ToNanoseconds(const timespec& time) {
  return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

double MillisecondsOfDay(const timespec& time) {
  const std::int64_t microseconds = time.tv_nsec / 1000;
  return static_cast<double>(SecondsOfDay(time)) * 1000.0 +
         static_cast<double>(microseconds) / 1000.0;
}

std::uint64_t TenNanosecondsOfDay(const timespec& time) {
  return static_cast<std::uint64_t>(SecondsOfDay(time)) * 100000000U +
         static_cast<std::uint64_t>(time.tv_nsec) / 10U;
}

std::uint32_t WholeMillisecondsOfDay(const timespec& time) {
  return static_cast<std::uint32_t>(SecondsOfDay(time) * 1000 + time.tv_nsec / 1000000);
}

NtpStamp NtpFromTime(const timespec& time) {
  const std::uint64_t seconds = static_cast<std::uint64_t>(time.tv_sec) + kNtpUnixOffset;
  const std::uint64_t microseconds = static_cast<std::uint64_t>(time.tv_nsec) / 1000U;
  // From 2036 on the seconds leave their 32 bits: the next NTP era begins at 0, as the protocol has
  // it.
  return seconds << 32U | (microseconds << 32U) / kMicrosecondsPerSecond;
}

NtpStamp NtpFromMicroseconds(std::uint64_t unix_microseconds) {
  const std::uint64_t seconds = unix_microseconds / kMicrosecondsPerSecond + kNtpUnixOffset;
  const auto microseconds = static_cast<double>(unix_microseconds % kMicrosecondsPerSecond);
  return seconds << 32U | static_cast<std::uint32_t>(microseconds * 4294.967296);
}

std::uint64_t NtpToMicroseconds(NtpStamp stamp) {
  return UnixSeconds(stamp) * kMicrosecondsPerSecond +
         (Fraction(stamp) * kMicrosecondsPerSecond >> 32U);
}

timespec NtpToTime(NtpStamp stamp) {
  timespec time{};
  time.tv_sec = static_cast<std::time_t>(UnixSeconds(stamp));
  time.tv_nsec =
      static_cast<long>(Fraction(stamp) * static_cast<std::uint64_t>(kNanosecondsPerSecond) >> 32U);
  return time;
}

std::int64_t NtpToMilliseconds(NtpStamp stamp) {
  const timespec time = NtpToTime(stamp);
  return time.tv_sec * 1000 + time.tv_nsec / 1000000;
}

std::int64_t NtpDifferenceMicroseconds(NtpStamp later, NtpStamp earlier) {
  return static_cast<std::int64_t>(NtpToMicroseconds(later) - NtpToMicroseconds(earlier));
}

std::uint64_t NtpToWire(NtpStamp stamp) {
  return boost::endian::native_to_big(stamp);
}

NtpStamp NtpFromWire(std::uint64_t wire) {
  return boost::endian::big_to_native(wire);
}

}  // namespace ipsla
