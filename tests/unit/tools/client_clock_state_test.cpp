#include <gtest/gtest.h>

#include "client/clock_state.h"

namespace ipsla::client {
namespace {

timex ClockValues(int status, long estimated_us, long maximum_us) {
  timex values{};
  values.status = status;
  values.esterror = estimated_us;
  values.maxerror = maximum_us;
  return values;
}

TEST(ClockState, SynchronisedHasItsErrorsInMilliseconds) {
  const ClockState clock = ClockStateFrom(TIME_OK, ClockValues(STA_PLL, 51, 12500));
  EXPECT_EQ(clock.synchronised, true);
  EXPECT_EQ(clock.estimated_error_ms, 0.051);
  EXPECT_EQ(clock.maximum_error_ms, 12.5);
  EXPECT_EQ(ClockText(clock), "synchronised, estimated error 0.051 ms");
}

TEST(ClockState, CountsADayWithALeapSecondAsSynchronised) {
  EXPECT_EQ(ClockStateFrom(TIME_INS, ClockValues(STA_PLL | STA_INS, 1, 1)).synchronised, true);
}

TEST(ClockState, UnsynchronisedHasNoErrors) {
  for (const auto& clock : {ClockStateFrom(TIME_ERROR, ClockValues(STA_UNSYNC, 16000000, 16000000)),
                            ClockStateFrom(TIME_ERROR, ClockValues(STA_PLL, 1, 1)),
                            ClockStateFrom(TIME_OK, ClockValues(STA_UNSYNC, 1, 1))}) {
    EXPECT_EQ(clock.synchronised, false);
    EXPECT_FALSE(clock.estimated_error_ms || clock.maximum_error_ms);
    EXPECT_EQ(ClockText(clock), "not synchronised");
  }
}

TEST(ClockState, CannotBeToldWhenTheCallFails) {
  const ClockState clock = ClockStateFrom(-1, ClockValues(0, 1, 1));
  EXPECT_FALSE(clock.synchronised || clock.estimated_error_ms);
  EXPECT_EQ(ClockText(clock), "unknown");
}

}  // namespace
}  // namespace ipsla::client
