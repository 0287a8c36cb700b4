#include "sender/probe_ring.h"

#include <ctime>

#include <gtest/gtest.h>

namespace ipsla {
namespace {

constexpr timespec At(std::int64_t milliseconds) {
  return {.tv_sec = 1000 + milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1000000};
}
constexpr double kMs = 1000000;  // At(0), in milliseconds of its day

TEST(ProbeRingTest, TheLastProbeOfARunHasSlotZero) {
  ProbeRing ring(5);
  for (int i = 0; i < 5; ++i) ring.OpenNext(At(i));
  EXPECT_EQ(ring.Sent(), 5U);
  EXPECT_EQ(ring.Records()[0].ss, 5U);
  EXPECT_EQ(ring.Records()[1].ss, 1U);
  EXPECT_EQ(ring.Records()[4].ss, 4U);
}

TEST(ProbeRingTest, HasASlotEvenForNoProbe) {
  for (const int slots : {0, -1}) EXPECT_EQ(ProbeRing(slots).Slots(), 1U);
}

TEST(ProbeRingTest, FindsOnlyWhatThisRunHasSent) {
  ProbeRing ring(3);
  EXPECT_EQ(ring.FindSent(1), nullptr);
  ring.OpenNext(At(7));
  ASSERT_NE(ring.FindSent(1), nullptr);
  EXPECT_EQ(ring.FindSent(1)->send_ms, kMs + 7);
  EXPECT_EQ(ring.FindSent(4), ring.FindSent(1)) << "modulo the number of probes";
  EXPECT_EQ(ring.FindSent(2), nullptr);
  ring.Clear();
  EXPECT_EQ(ring.FindSent(1), nullptr);
  EXPECT_EQ(ring.Sent(), 0U);
}

TEST(ProbeRingTest, NumbersAnswersInTheirOrder) {
  ProbeRing ring(3);
  ring.OpenNext(At(0));
  ring.OpenNext(At(1));
  ring.Accept(ring.FindSent(2));
  ring.Accept(ring.FindSent(1));
  EXPECT_EQ(ring.FindSent(2)->id, 0U);
  EXPECT_EQ(ring.FindSent(1)->id, 1U);
  EXPECT_EQ(ring.FindSent(1)->state, SlaPacketState::kReceived);
  EXPECT_EQ(ring.Received(), 2U);
}

TEST(ProbeRingTest, TakesBackAProbeThatDidNotLeave) {
  ProbeRing ring(3);
  ring.OpenNext(At(0));
  ring.OpenNext(At(1));
  ring.TakeBackLast();
  EXPECT_EQ(ring.Sent(), 1U);
  EXPECT_EQ(ring.FindSent(2), nullptr);
  EXPECT_EQ(ring.OpenNext(At(2)).ss, 2U);
}

TEST(ProbeRingTest, TheKernelsDepartureReplacesTheClocks) {
  ProbeRing ring(3);
  ring.OpenNext(At(10)).send_stamp = 5;
  ring.SetDeparture(1, At(12), true);
  EXPECT_EQ(ring.FindSent(1)->send_ms, kMs + 12);
  EXPECT_EQ(ring.FindSent(1)->send_stamp, 100001200000U / 1000U * 1000U + 0U)
      << "units of 10 ns of the day";
}

TEST(ProbeRingTest, KeepsTheStampOfTypesThatSendIt) {
  ProbeRing ring(3);
  ring.OpenNext(At(10)).send_stamp = 5;
  ring.SetDeparture(1, At(12), false);
  EXPECT_EQ(ring.FindSent(1)->send_ms, kMs + 12);
  EXPECT_EQ(ring.FindSent(1)->send_stamp, 5U);
}

TEST(ProbeRingTest, RefusesADepartureThatCannotBe) {
  ProbeRing ring(3);
  ring.OpenNext(At(10));
  ring.SetDeparture(1, At(9), true);
  EXPECT_EQ(ring.FindSent(1)->send_ms, kMs + 10) << "before the call";
  ring.SetDeparture(4, At(12), true);
  EXPECT_EQ(ring.FindSent(1)->send_ms, kMs + 10) << "another probe's, same slot";
  ring.FindSent(1)->receive_ms = kMs + 11;
  ring.Accept(ring.FindSent(1));
  ring.SetDeparture(1, At(12), true);
  EXPECT_EQ(ring.FindSent(1)->send_ms, kMs + 10) << "after the answer";
}

}  // namespace
}  // namespace ipsla
