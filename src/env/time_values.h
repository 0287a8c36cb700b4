// The clocks of the daemon and the units in which its measurements keep time. No other file reads a
// clock (but the log, a floor below, which dates its lines).
//
// Two clocks, two purposes: the real-time clock gives send and receive stamps and the times shown
// to people; it may be set at any moment, so a difference of two of its values can be wrong or
// negative. The steady clock paces probes and never jumps. Stamps count from midnight UTC, and a
// run that spans midnight is not corrected.

#ifndef IPSLA_ENV_TIME_VALUES_H_
#define IPSLA_ENV_TIME_VALUES_H_

#include <chrono>
#include <cstdint>
#include <ctime>

namespace ipsla {

/// Of timespec and of steady time.
inline constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

/// The real-time clock (CLOCK_REALTIME). Any thread.
[[nodiscard]] timespec RealTimeNow();

/// A moment of the steady clock (CLOCK_MONOTONIC).
using SteadyTime = std::chrono::steady_clock::time_point;

/// The steady clock. Any thread.
[[nodiscard]] SteadyTime SteadyNow();

/// Where the two clocks are read.
struct Clocks {
  timespec (*real_time)();
  SteadyTime (*steady)();
};

/// Puts other clocks under the whole process, or the system's again (null). For tests, which set a
/// clock that nobody else has. `replacement` must outlive its use. Any thread.
void UseClocks(const Clocks* replacement);

/// Sleeps until the steady clock reads `deadline`, going on after signals. Any thread.
void SleepUntil(SteadyTime deadline);

/// Nanoseconds since the Unix epoch.
[[nodiscard]] std::int64_t ToNanoseconds(const timespec& time);

/// Time of day in milliseconds, to the microsecond: (seconds mod 86400) x 1000 + microseconds /
/// 1000.
[[nodiscard]] double MillisecondsOfDay(const timespec& time);

/// Time of day in units of 10 nanoseconds: (seconds mod 86400) x 100000000 + nanoseconds / 10.
[[nodiscard]] std::uint64_t TenNanosecondsOfDay(const timespec& time);

/// Time of day in whole milliseconds, as an ICMP time stamp counts (RFC 792): below 86400000.
[[nodiscard]] std::uint32_t WholeMillisecondsOfDay(const timespec& time);

/// Seconds from the NTP era (1900) to the Unix epoch (RFC 5905).
inline constexpr std::uint64_t kNtpUnixOffset = 2208988800U;

/// An NTP time stamp (RFC 5905) in host order: seconds since 1900 in the upper 32 bits, the binary
/// fraction below. On the wire and in probe records it stands in network order; NtpToWire and
/// NtpFromWire convert.
using NtpStamp = std::uint64_t;

/// seconds + 2208988800; fraction = ((nanoseconds / 1000) x 2^32) / 1000000.
[[nodiscard]] NtpStamp NtpFromTime(const timespec& time);

/// The same from microseconds since the Unix epoch, with fraction = microseconds x 4294.967296.
[[nodiscard]] NtpStamp NtpFromMicroseconds(std::uint64_t unix_microseconds);

/// Microseconds since the Unix epoch; the fraction is scaled by 10^6 / 2^32, rounded down.
[[nodiscard]] std::uint64_t NtpToMicroseconds(NtpStamp stamp);

/// Time since the Unix epoch; the fraction is scaled by 10^9 / 2^32, rounded down. Seconds before
/// 1970 wrap as the subtraction in unsigned 64 bits does.
[[nodiscard]] timespec NtpToTime(NtpStamp stamp);

/// Whole milliseconds since the Unix epoch: seconds x 1000 + nanoseconds / 1000000.
[[nodiscard]] std::int64_t NtpToMilliseconds(NtpStamp stamp);

/// later - earlier in microseconds; negative when `later` is the earlier one.
[[nodiscard]] std::int64_t NtpDifferenceMicroseconds(NtpStamp later, NtpStamp earlier);

/// The 8 bytes of a stamp in network order, held as they stand in memory, and back.
[[nodiscard]] std::uint64_t NtpToWire(NtpStamp stamp);
[[nodiscard]] NtpStamp NtpFromWire(std::uint64_t wire);

}  // namespace ipsla

#endif  // IPSLA_ENV_TIME_VALUES_H_
