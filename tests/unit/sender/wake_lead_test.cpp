#include "sender/wake_lead.h"

#include <gtest/gtest.h>

namespace ipsla {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds kLongSleep{20};

TEST(WakeLeadTest, BeginsWithoutOne) {
  EXPECT_EQ(WakeLead().Lead(kLongSleep), nanoseconds(0));
}

TEST(WakeLeadTest, LearnsALatenessThatStays) {
  WakeLead lead;
  for (int i = 0; i < 20; ++i) lead.Woke(microseconds(60));
  EXPECT_EQ(lead.Lead(kLongSleep), microseconds(60));
}

TEST(WakeLeadTest, CoversNineOfTenSleeps) {
  WakeLead lead;
  for (int i = 0; i < 2000; ++i) lead.Woke(microseconds(50 + i * 7 % 40));
  EXPECT_GT(lead.Lead(kLongSleep), microseconds(80));
  EXPECT_LT(lead.Lead(kLongSleep), microseconds(90));
}

TEST(WakeLeadTest, ForgetsALatenessThatIsOver) {
  WakeLead lead;
  for (int i = 0; i < 500; ++i) lead.Woke(microseconds(60));
  for (int i = 0; i < 200; ++i) lead.Woke(microseconds(7));
  EXPECT_EQ(lead.Lead(kLongSleep), microseconds(7));
}

TEST(WakeLeadTest, OneLateWakeUpChangesLittle) {
  WakeLead lead;
  for (int i = 0; i < 500; ++i) lead.Woke(microseconds(20));
  lead.Woke(milliseconds(500));
  EXPECT_LT(lead.Lead(kLongSleep), microseconds(25));
}

TEST(WakeLeadTest, NeverLearnsMoreThanTheMost) {
  WakeLead lead;
  for (int i = 0; i < 5000; ++i) lead.Woke(std::chrono::seconds(1));
  EXPECT_EQ(lead.Lead(std::chrono::hours(1)), WakeLead::kMost);
}

TEST(WakeLeadTest, AShortSleepIsNotFollowedByALongTimeAwake) {
  WakeLead lead;
  for (int i = 0; i < 2000; ++i) lead.Woke(microseconds(50 + i * 7 % 40));
  lead.Woke(microseconds(50));
  EXPECT_GE(lead.Lead(microseconds(640)), microseconds(50));
  EXPECT_LE(lead.Lead(microseconds(640)), microseconds(61));
}

}  // namespace
}  // namespace ipsla
