#include "env/time_values.h"

#include <array>
#include <cstring>

#include <gtest/gtest.h>

namespace ipsla::test {
namespace {

constexpr std::time_t kNoon = 1700000000 / 86400 * 86400 + 43200;  // of a day in 2023

struct DayCase {
  timespec time;
  double milliseconds;
  std::uint64_t ten_nanoseconds;
  std::uint32_t whole_milliseconds;
};

TEST(TimeOfDayTest, CountsFromMidnightUtc) {
  const std::array<DayCase, 7> cases = {{
      {{0, 0}, 0.0, 0, 0},
      {{86399, 999999999}, 86399999.999, 8639999999999U, 86399999},
      {{86400, 0}, 0.0, 0, 0},
      {{kNoon, 123456789}, 43200123.456, 4320012345678U, 43200123},
      {{kNoon, 999}, 43200000.0, 4320000000099U, 43200000},
      {{kNoon, 1000}, 43200000.001, 4320000000100U, 43200000},
      {{-1, 500000000},
       86399500.0,
       8639950000000U,
       86399500},  // before 1970, but of a day all the same
  }};
  for (const DayCase& c : cases) {
    EXPECT_DOUBLE_EQ(MillisecondsOfDay(c.time), c.milliseconds)
        << c.time.tv_sec << "." << c.time.tv_nsec;
    EXPECT_EQ(TenNanosecondsOfDay(c.time), c.ten_nanoseconds)
        << c.time.tv_sec << "." << c.time.tv_nsec;
    EXPECT_EQ(WholeMillisecondsOfDay(c.time), c.whole_milliseconds)
        << c.time.tv_sec << "." << c.time.tv_nsec;
  }
}

TEST(TimeOfDayTest, CountsNanosecondsSinceTheEpoch) {
  EXPECT_EQ(ToNanoseconds({0, 1}), 1);
  EXPECT_EQ(ToNanoseconds({1700000000, 123456789}), 1700000000123456789);
}

struct NtpCase {
  timespec time;
  NtpStamp stamp;
};

TEST(NtpTest, ConvertsATimeWithItsMicroseconds) {
  const std::array<NtpCase, 6> cases = {{
      {{0, 0}, 0x83AA7E8000000000U},
      {{0, 500000000}, 0x83AA7E8080000000U},
      {{0, 999}, 0x83AA7E8000000000U},         // less than a microsecond
      {{0, 1000}, 0x83AA7E80000010C6U},        // 4294.967 rounded down
      {{1, 999999999}, 0x83AA7E81FFFFEF39U},   // 999999 microseconds
      {{2085978496, 250000000}, 0x40000000U},  // 2036: the second NTP era begins
  }};
  for (const NtpCase& c : cases) {
    EXPECT_EQ(NtpFromTime(c.time), c.stamp) << c.time.tv_sec << "." << c.time.tv_nsec;
  }
}

TEST(NtpTest, ConvertsMicroseconds) {
  EXPECT_EQ(NtpFromMicroseconds(0), 0x83AA7E8000000000U);
  EXPECT_EQ(NtpFromMicroseconds(1), 0x83AA7E80000010C6U);
  EXPECT_EQ(NtpFromMicroseconds(1500000), 0x83AA7E8180000000U);
  EXPECT_EQ(NtpFromMicroseconds(1999999), 0x83AA7E81FFFFEF39U);
}

TEST(NtpTest, AgreesWithItselfForEveryMicrosecond) {
  for (std::uint64_t microseconds = 0; microseconds < 1000000; ++microseconds) {
    const timespec time{1700000000, static_cast<long>(microseconds) * 1000};
    ASSERT_EQ(NtpFromMicroseconds(1700000000000000U + microseconds), NtpFromTime(time))
        << microseconds;
  }
}

TEST(NtpTest, ConvertsBackRoundingDown) {
  EXPECT_EQ(NtpToMicroseconds(0x83AA7E8180000000U), 1500000U);
  EXPECT_EQ(NtpToMicroseconds(0x83AA7E80FFFFFFFFU), 999999U);
  EXPECT_EQ(NtpToTime(0x83AA7E8180000000U).tv_sec, 1);
  EXPECT_EQ(NtpToTime(0x83AA7E8180000000U).tv_nsec, 500000000);
  EXPECT_EQ(NtpToTime(0x83AA7E80FFFFFFFFU).tv_nsec, 999999999);
  EXPECT_EQ(NtpToMilliseconds(0x83AA7E8180000000U), 1500);
  EXPECT_EQ(NtpToMilliseconds(0x83AA7E80FFFFFFFFU), 999);
}

TEST(NtpTest, WrapsBeforeTheUnixEpoch) {
  EXPECT_EQ(NtpToTime(0).tv_sec, -2208988800);
  EXPECT_EQ(NtpToTime(0).tv_nsec, 0);
  EXPECT_EQ(NtpToMicroseconds(0), static_cast<std::uint64_t>(-2208988800000000));
  EXPECT_EQ(NtpToMilliseconds(0x83AA7E7F80000000U), -500);
}

TEST(NtpTest, TakesDifferencesInMicroseconds) {
  const NtpStamp noon = NtpFromTime({kNoon, 0});
  EXPECT_EQ(NtpDifferenceMicroseconds(NtpFromTime({kNoon + 1, 500000000}), noon), 1500000);
  EXPECT_EQ(NtpDifferenceMicroseconds(noon, NtpFromTime({kNoon + 1, 500000000})), -1500000);
  EXPECT_EQ(NtpDifferenceMicroseconds(noon, noon), 0);
  EXPECT_EQ(NtpDifferenceMicroseconds(NtpFromTime({0, 0}), 0), 2208988800000000);
  EXPECT_EQ(NtpDifferenceMicroseconds(0, NtpFromTime({0, 0})), -2208988800000000);
}

TEST(NtpTest, StandsInNetworkOrderOnTheWire) {
  const std::uint64_t wire = NtpToWire(0x0102030405060708U);
  std::array<unsigned char, 8> bytes{};
  std::memcpy(bytes.data(), &wire, bytes.size());
  EXPECT_EQ(bytes, (std::array<unsigned char, 8>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(NtpFromWire(wire), 0x0102030405060708U);
}

TEST(ClockTest, ReadsTheRealTimeClock) {
  const std::time_t before = std::time(nullptr);
  const timespec now = RealTimeNow();
  EXPECT_GE(now.tv_sec, before);
  EXPECT_GE(std::time(nullptr) + 1, now.tv_sec);
}

TEST(ClockTest, NeverSleepsTooShort) {
  const SteadyTime deadline = SteadyNow() + std::chrono::milliseconds(2);
  SleepUntil(deadline);
  EXPECT_GE(SteadyNow(), deadline);
}

TEST(ClockTest, DoesNotSleepUntilADeadlineInThePast) {
  const SteadyTime begin = SteadyNow();
  for (const SteadyTime deadline : {begin, begin - std::chrono::seconds(1), SteadyTime{},
                                    SteadyTime{std::chrono::nanoseconds(-1)}, SteadyTime::min()}) {
    SleepUntil(deadline);
  }
  EXPECT_LT(SteadyNow() - begin, std::chrono::seconds(10));
}

}  // namespace
}  // namespace ipsla::test
