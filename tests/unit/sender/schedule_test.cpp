#include "sender/schedule.h"

#include <cerrno>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/local_time_zone.h"

namespace ipsla::test {
namespace {

constexpr std::int64_t kSecond = 1000000000;
constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";
constexpr const char* kKolkata = "IST-5:30";
constexpr const char* kUtc = "UTC0";
constexpr std::time_t kBerlinNoon = 1721037600;  // 15 July 2024, 12:00:00 in Berlin

std::optional<FirstStart> Compute(const std::string& start, const std::string& life,
                                  std::time_t now, long nanoseconds = 0) {
  SlaSchedulerConfig scheduler;
  scheduler.start_time = start;
  scheduler.life_time = life;
  return ComputeFirstStart(scheduler, {.tv_sec = now, .tv_nsec = nanoseconds});
}

std::string ErrorOf(const std::string& start, const std::string& life) {
  try {
    (void)Compute(start, life, kBerlinNoon);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no error";
}

TEST(ComputeFirstStart, NowAndForeverStartAtOnceAndNeverEnd) {
  const auto first = Compute("now", "forever", kBerlinNoon, 999999999);
  ASSERT_TRUE(first);
  EXPECT_EQ(0U, first->delay_ms);
  EXPECT_EQ(kForever, first->end_of_life);
}

TEST(ComputeFirstStart, CountsLifeFromTheExactStart) {
  EXPECT_EQ(kBerlinNoon * kSecond + 7 + 3600 * kSecond,
            Compute("now", "3600", kBerlinNoon, 7)->end_of_life);
  const LocalTimeZone zone(kBerlin);
  EXPECT_EQ((1721039400 + 3600) * kSecond,
            Compute("12:30:00", "3600", kBerlinNoon, 7)->end_of_life);
}

struct StartCase {
  const char* zone;
  std::time_t now;
  const char* text;
  std::int64_t start;  // seconds since the epoch
};

class StartText : public testing::TestWithParam<StartCase> {};

TEST_P(StartText, IsReadOnTheLocalCalendar) {
  const StartCase& c = GetParam();
  const LocalTimeZone zone(c.zone);
  const auto first = Compute(c.text, "0", c.now);
  ASSERT_TRUE(first);
  EXPECT_EQ(c.start * kSecond, first->end_of_life);  // with no life time the end is the start
  EXPECT_EQ(static_cast<std::uint32_t>((c.start - c.now) * 1000), first->delay_ms);
}

INSTANTIATE_TEST_SUITE_P(
    Schedule, StartText,
    testing::Values(
        // Today at a time.
        StartCase{kBerlin, kBerlinNoon, "12:30:00", 1721039400},
        StartCase{kBerlin, kBerlinNoon, "11:59:50", 1721037590},
        StartCase{kBerlin, kBerlinNoon, "8:00:00", 1721023200},
        StartCase{kBerlin, kBerlinNoon, "12:30:00 sharp", 1721039400},
        StartCase{kUtc, 1709200800, "12:30:00", 1709209800},      // on a leap day
        StartCase{kKolkata, 1704049200, "12:30:00", 1704092400},  // already the new year there
        // A day of this year, in either half of the year.
        StartCase{kBerlin, kBerlinNoon, "March 05", 1709593200},
        StartCase{kBerlin, kBerlinNoon, "March 05 12:00:00", 1709636400},
        StartCase{kBerlin, kBerlinNoon, "December 24 18:00:00", 1735059600},
        StartCase{kBerlin, kBerlinNoon, "Mar 5", 1709593200},
        StartCase{kKolkata, 1704049200, "March 05", 1709577000},
        StartCase{kNewYork, 1704078000, "March 05", 1677992400},  // 2023 there, 2024 in UTC
        StartCase{kNewYork, 1704078000, "July 04", 1688443200},
        // The leap day, and what a year without one makes of it.
        StartCase{kBerlin, kBerlinNoon, "February 29", 1709161200},
        StartCase{kBerlin, kBerlinNoon, "February 29 23:59:59", 1709247599},
        StartCase{kBerlin, 1689415200, "February 29", 1677625200},  // 1 March 2023
        // On the day the clocks go forward, before and after it.
        StartCase{kBerlin, 1711879200, "01:30:00", 1711845000},
        StartCase{kBerlin, 1711879200, "23:00:00", 1711918800},
        // A time that does not match leaves nothing behind: midnight.
        StartCase{kBerlin, kBerlinNoon, "March 05 12:30", 1709593200}));

TEST(ComputeFirstStart, CutsTheDelayToWholeSecondsTowardZero) {
  const LocalTimeZone zone(kBerlin);
  // 9.25 s and 0.25 s ahead; 0.75 s and 10.75 s past.
  EXPECT_EQ(9000U, Compute("12:00:10", "forever", kBerlinNoon, 750000000)->delay_ms);
  EXPECT_EQ(0U, Compute("12:00:01", "forever", kBerlinNoon, 750000000)->delay_ms);
  EXPECT_EQ(0U, Compute("12:00:00", "forever", kBerlinNoon, 750000000)->delay_ms);
  EXPECT_EQ(4294967296U - 10000U, Compute("11:59:50", "forever", kBerlinNoon, 750000000)->delay_ms);
}

TEST(ComputeFirstStart, StartEarlierTodayWrapsToAWaitOfWeeks) {
  const LocalTimeZone zone(kBerlin);
  EXPECT_EQ(4294967296U - 14400000U, Compute("08:00:00", "forever", kBerlinNoon)->delay_ms);
}

TEST(ComputeFirstStart, WrapsADelayBeyond32Bits) {
  const LocalTimeZone zone(kBerlin);
  // 24 December 18:00 CET lies 14022000 s ahead: 14022000000 - 3 x 2^32 = 1137098112 ms.
  EXPECT_EQ(1137098112U, Compute("December 24 18:00:00", "forever", kBerlinNoon)->delay_ms);
}

TEST(ComputeFirstStart, RejectsOtherStartTexts) {
  for (const std::string text : {"", "Now", "now ", "tomorrow", "12:30", "24:00:00", "12:60:00",
                                 "05 March", "March", "March 32", "Marchember 5"}) {
    EXPECT_EQ("Cannot parse time string: " + text, ErrorOf(text, "forever"));
  }
}

TEST(ComputeFirstStart, NegativeLifeIsNeverStarted) {
  EXPECT_FALSE(Compute("now", "-1", kBerlinNoon));
  EXPECT_FALSE(Compute("now", "-99999999999999999999", kBerlinNoon));
}

TEST(ComputeFirstStart, RejectsABadStartEvenOfATestThatIsNeverStarted) {
  EXPECT_EQ("Cannot parse time string: soon", ErrorOf("soon", "-1"));
}

TEST(ComputeFirstStart, LifeZeroEndsAtTheStart) {
  for (const char* life : {"0", "", "Forever", "abc", "  0", "0x10"}) {
    EXPECT_EQ(kBerlinNoon * kSecond, Compute("now", life, kBerlinNoon)->end_of_life) << life;
  }
}

TEST(ComputeFirstStart, ReadsLifeUpToTheFirstOtherCharacter) {
  EXPECT_EQ((kBerlinNoon + 60) * kSecond, Compute("now", "60s", kBerlinNoon)->end_of_life);
  EXPECT_EQ((kBerlinNoon + 60) * kSecond, Compute("now", " +60.9", kBerlinNoon)->end_of_life);
}

TEST(ComputeFirstStart, RejectsALifeNoIntegerHolds) {
  EXPECT_EQ("Cannot parse time string: 9223372036854775808", ErrorOf("now", "9223372036854775808"));
}

TEST(ComputeFirstStart, EndBeyondTheClockMeansForever) {
  errno = ERANGE;  // of somebody else's call
  for (const char* life : {"9223372036854775807", "9223372037", "9223372036"}) {
    EXPECT_EQ(kForever, Compute("now", life, kBerlinNoon)->end_of_life) << life;
  }
  // The last whole second the clock can count: 9223372036 - 1721037600.
  EXPECT_EQ(9223372036 * kSecond, Compute("now", "7502334436", kBerlinNoon)->end_of_life);
}

}  // namespace
}  // namespace ipsla::test
