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
    allowed += limiter_.IsAllowed(7, ErrorKind::kStart) ? 1 : 0;
    now_ += 14;
  }
  EXPECT_EQ(allowed, 1);
  now_ = 1000060;
  EXPECT_TRUE(limiter_.IsAllowed(7, ErrorKind::kStart));
  EXPECT_FALSE(limiter_.IsAllowed(7, ErrorKind::kStart));
}

TEST_F(ErrorLimiterTest, EndsThePeriodAfterSixtySecondsNotBefore) {
  limiter_.Add(7);
  EXPECT_TRUE(limiter_.IsAllowed(7, ErrorKind::kControlRequest));
  now_ += 59;
  EXPECT_FALSE(limiter_.IsAllowed(7, ErrorKind::kControlRequest));
  now_ += 1;
  EXPECT_TRUE(limiter_.IsAllowed(7, ErrorKind::kControlRequest));
}

TEST_F(ErrorLimiterTest, BeginsTheNextPeriodWithTheFirstMessageAfterAQuietOne) {
  limiter_.Add(7);
  now_ += 1000;
  EXPECT_TRUE(limiter_.IsAllowed(7, ErrorKind::kStart));
  now_ += 59;
  EXPECT_FALSE(limiter_.IsAllowed(7, ErrorKind::kStart));
}

TEST_F(ErrorLimiterTest, StartsOverWhenTheClockIsSetBack) {
  limiter_.Add(7);
  EXPECT_TRUE(limiter_.IsAllowed(7, ErrorKind::kStart));
  now_ -= 1;
  EXPECT_TRUE(limiter_.IsAllowed(7, ErrorKind::kStart));
  EXPECT_FALSE(limiter_.IsAllowed(7, ErrorKind::kStart));
}

TEST_F(ErrorLimiterTest, CountsEachKindAndEachTestByItself) {
  for (const std::uint16_t id : {std::uint16_t{1}, std::uint16_t{65535}}) {
    limiter_.Add(id);
    for (const ErrorKind kind : {ErrorKind::kStart, ErrorKind::kSend, ErrorKind::kControlRequest,
                                 ErrorKind::kControlResponse, ErrorKind::kControlTimeOut}) {
      EXPECT_TRUE(limiter_.IsAllowed(id, kind)) << id << " " << static_cast<int>(kind);
      EXPECT_FALSE(limiter_.IsAllowed(id, kind)) << id << " " << static_cast<int>(kind);
    }
  }
}

TEST_F(ErrorLimiterTest, GivesATestWithoutSlotsItsSlotsWhenAsked) {
  EXPECT_TRUE(limiter_.IsAllowed(9, ErrorKind::kControlTimeOut));
  EXPECT_FALSE(limiter_.IsAllowed(9, ErrorKind::kControlTimeOut));
  EXPECT_TRUE(limiter_.IsAllowed(9, ErrorKind::kStart));
}

TEST_F(ErrorLimiterTest, KeepsTheSlotsOfATestThatHasThem) {
  limiter_.Add(7);
  EXPECT_TRUE(limiter_.IsAllowed(7, ErrorKind::kStart));
  limiter_.Add(7);
  EXPECT_FALSE(limiter_.IsAllowed(7, ErrorKind::kStart));
}

TEST_F(ErrorLimiterTest, ForgetsARemovedTest) {
  limiter_.Add(7);
  EXPECT_TRUE(limiter_.IsAllowed(7, ErrorKind::kStart));
  limiter_.Remove(7);
  limiter_.Remove(8);
  EXPECT_TRUE(limiter_.IsAllowed(7, ErrorKind::kStart));
}

TEST_F(ErrorLimiterTest, AllowsOneMessageHoweverManyThreadsAsk) {
  std::atomic<int> allowed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, &allowed, i] {
      for (int n = 0; n < 500; ++n) {
        allowed += limiter_.IsAllowed(7, ErrorKind::kSend) ? 1 : 0;
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
  EXPECT_TRUE(IsErrorLogAllowed(4711, ErrorKind::kControlTimeOut));
  EXPECT_FALSE(IsErrorLogAllowed(4711, ErrorKind::kControlTimeOut));
  RemoveErrorLimits(4711);
  EXPECT_TRUE(IsErrorLogAllowed(4711, ErrorKind::kControlTimeOut));
  RemoveErrorLimits(4711);
}

}  // namespace
}  // namespace ipsla::test
