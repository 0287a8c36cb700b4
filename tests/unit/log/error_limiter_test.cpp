#include "log/error_limiter.h"

#include <atomic>
#include <ctime>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace ipsla::test {
namespace {

class ErrorLimiterTest : public testing::Test {
 protected:
  std::atomic<std::time_t> now_{1000000};
  ErrorLimiter limiter_{[this] { return now_.load(); }};
};

TEST_F(ErrorLimiterTest, AllowsOneOfFiveFailuresWithinAMinuteAndTheNextAfterIt) {
  limiter_.Add(7);
  int allowed = 0;
  for (int i = 0; i < 5; ++i) {
    allowed += limiter_.IsAllowed(7, 0) ? 1 : 0;
    now_ += 14;
  }
  EXPECT_EQ(allowed, 1);
  now_ = 1000060;
  EXPECT_TRUE(limiter_.IsAllowed(7, 0));
  EXPECT_FALSE(limiter_.IsAllowed(7, 0));
}

TEST_F(ErrorLimiterTest, EndsThePeriodAfterSixtySecondsNotBefore) {
  limiter_.Add(7);
  EXPECT_TRUE(limiter_.IsAllowed(7, 3));
  now_ += 59;
  EXPECT_FALSE(limiter_.IsAllowed(7, 3));
  now_ += 1;
  EXPECT_TRUE(limiter_.IsAllowed(7, 3));
}

TEST_F(ErrorLimiterTest, BeginsTheNextPeriodWithTheFirstMessageAfterAQuietOne) {
  limiter_.Add(7);
  now_ += 1000;
  EXPECT_TRUE(limiter_.IsAllowed(7, 0));
  now_ += 59;
  EXPECT_FALSE(limiter_.IsAllowed(7, 0));
}

TEST_F(ErrorLimiterTest, StartsOverWhenTheClockIsSetBack) {
  limiter_.Add(7);
  EXPECT_TRUE(limiter_.IsAllowed(7, 0));
  now_ -= 1;
  EXPECT_TRUE(limiter_.IsAllowed(7, 0));
  EXPECT_FALSE(limiter_.IsAllowed(7, 0));
}

TEST_F(ErrorLimiterTest, CountsEachKindAndEachTestByItself) {
  for (const std::uint16_t id : {std::uint16_t{1}, std::uint16_t{65535}}) {
    limiter_.Add(id);
    for (int kind = 0; kind < kErrorKinds; ++kind) {
      EXPECT_TRUE(limiter_.IsAllowed(id, kind)) << id << " " << kind;
      EXPECT_FALSE(limiter_.IsAllowed(id, kind)) << id << " " << kind;
    }
  }
}

TEST_F(ErrorLimiterTest, GivesATestWithoutSlotsItsSlotsWhenAsked) {
  EXPECT_TRUE(limiter_.IsAllowed(9, 12));
  EXPECT_FALSE(limiter_.IsAllowed(9, 12));
  EXPECT_TRUE(limiter_.IsAllowed(9, 0));
}

TEST_F(ErrorLimiterTest, KeepsTheSlotsOfATestThatHasThem) {
  limiter_.Add(7);
  EXPECT_TRUE(limiter_.IsAllowed(7, 0));
  limiter_.Add(7);
  EXPECT_FALSE(limiter_.IsAllowed(7, 0));
}

TEST_F(ErrorLimiterTest, ForgetsARemovedTest) {
  limiter_.Add(7);
  EXPECT_TRUE(limiter_.IsAllowed(7, 0));
  limiter_.Remove(7);
  limiter_.Remove(8);
  EXPECT_TRUE(limiter_.IsAllowed(7, 0));
}

TEST_F(ErrorLimiterTest, DoesNotLimitAKindThatHasNoSlot) {
  for (const int kind : {-1, kErrorKinds}) {
    EXPECT_TRUE(limiter_.IsAllowed(7, kind));
    EXPECT_TRUE(limiter_.IsAllowed(7, kind));
  }
}

TEST_F(ErrorLimiterTest, AllowsOneMessageHoweverManyThreadsAsk) {
  std::atomic<int> allowed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, &allowed, i] {
      for (int n = 0; n < 500; ++n) {
        allowed += limiter_.IsAllowed(7, 2) ? 1 : 0;
        limiter_.Add(static_cast<std::uint16_t>(100 + i));
        limiter_.Remove(static_cast<std::uint16_t>(100 + i));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(allowed, 1);
}

TEST(ProcessErrorLimitsTest, LimitsThroughTheFreeFunctions) {
  AddErrorLimits(4711);
  EXPECT_TRUE(IsErrorLogAllowed(4711, 5));
  EXPECT_FALSE(IsErrorLogAllowed(4711, 5));
  RemoveErrorLimits(4711);
  EXPECT_TRUE(IsErrorLogAllowed(4711, 5));
  RemoveErrorLimits(4711);
}

}  // namespace
}  // namespace ipsla::test
