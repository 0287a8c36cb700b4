#include "sender/wake_lead.h"

#include <gtest/gtest.h>

namespace ipsla {
namespace {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

TEST(WakeLeadTest, BeginsWithoutOne) {
  EXPECT_EQ(WakeLead().Lead(), nanoseconds(0));
}

TEST(WakeLeadTest, LearnsALatenessThatStays) {
  WakeLead lead;
  for (int i = 0; i < 500; ++i) lead.Woke(microseconds(60));
  EXPECT_GT(lead.Lead(), microseconds(58));
  EXPECT_LE(lead.Lead(), microseconds(60));
}

TEST(WakeLeadTest, FollowsALowerLatenessAtOnce) {
  WakeLead lead;
  for (int i = 0; i < 500; ++i) lead.Woke(microseconds(60));
  lead.Woke(microseconds(7));
  EXPECT_EQ(lead.Lead(), microseconds(7));
}

TEST(WakeLeadTest, OneLateWakeUpChangesLittle) {
  WakeLead lead;
  for (int i = 0; i < 500; ++i) lead.Woke(microseconds(20));
  lead.Woke(std::chrono::milliseconds(500));
  EXPECT_LT(lead.Lead(), microseconds(24));
}

TEST(WakeLeadTest, NeverLearnsMoreThanIsWaitedAwakeFor) {
  WakeLead lead;
  for (int i = 0; i < 5000; ++i) lead.Woke(std::chrono::seconds(1));
  EXPECT_LE(lead.Lead(), WakeLead::kMost);
}

}  // namespace
}  // namespace ipsla
