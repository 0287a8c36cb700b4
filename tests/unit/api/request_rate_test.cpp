#include "api/request_rate.h"

#include <gtest/gtest.h>

namespace ipsla {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr RequestRate::Time kStart{seconds(1000)};

TEST(RequestRateTest, SomePassAtOnceAndNoMore) {
  RequestRate rate;
  for (int count = 0; count < RequestRate::kAtOnce; ++count) EXPECT_TRUE(rate.Pass(kStart));
  EXPECT_FALSE(rate.Pass(kStart));
}

TEST(RequestRateTest, FloodGetsTheRateOverTime) {
  RequestRate rate;
  int passed = 0;
  for (auto now = kStart; now < kStart + seconds(10); now += std::chrono::microseconds(50)) {
    if (rate.Pass(now)) ++passed;
  }
  EXPECT_NEAR(passed, 10 * RequestRate::kPerSecond, RequestRate::kAtOnce);
}

TEST(RequestRateTest, QuietTimeIsNotSavedUp) {
  RequestRate rate;
  EXPECT_TRUE(rate.Pass(kStart));
  const auto later = kStart + std::chrono::hours(1);
  for (int count = 0; count < RequestRate::kAtOnce; ++count) EXPECT_TRUE(rate.Pass(later));
  EXPECT_FALSE(rate.Pass(later));
  EXPECT_TRUE(rate.Pass(later + milliseconds(1)));
}

}  // namespace
}  // namespace ipsla
