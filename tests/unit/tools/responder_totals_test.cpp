#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "responder/totals.h"

namespace ipsla::responder {
namespace {

using testing::Contains;
using testing::ElementsAre;
using Status = SlaControlStatus;

TEST(ReplyTimes, DescribesMedianTailAndLongest) {
  ReplyTimes times;
  EXPECT_EQ(times.Describe(), "none");
  times.Note(-5);  // the clock was set
  EXPECT_EQ(times.Describe(), "median at most 0, 99 % at most 0, longest 0");
  for (int i = 0; i < 980; ++i) times.Note(40'001);
  for (int i = 0; i < 20; ++i) times.Note(90'000);
  EXPECT_EQ(times.Describe(), "median at most 50, 99 % at most 90, longest 90");
  times.Note(400'000'000);
  EXPECT_EQ(times.Describe(), "median at most 50, 99 % at most 100, longest 400000");
}

TEST(ReplyTimes, KnowsTimesBeyondItsLastClass) {
  ReplyTimes times;
  times.Note(7'000'000'000);
  EXPECT_EQ(times.Describe(), "median at most 7000000, 99 % at most 7000000, longest 7000000");
}

TEST(RefusalCounts, CountsByBlockAndStatus) {
  RefusalCounts counts;
  EXPECT_THAT(counts.Describe(), ElementsAre());
  ControlPhaseMessage answer;
  answer.status = Status::kInvalidLength;
  counts.Note(answer);
  answer.status = Status::kFail;
  answer.auth_status = Status::kAuthenticationFail;
  counts.Note(answer);
  counts.Note(answer);
  answer.auth_status = Status::kSuccessful;
  answer.measurement_status = Status::kUnknownInternalError;
  counts.Note(answer);
  EXPECT_EQ(counts.Total(), 4U);
  EXPECT_THAT(counts.Describe(),
              ElementsAre("invalid length 1", "authentication: authentication fail 2",
                          "measurement: unknown internal error 1"));
}

TEST(DescribeTotals, AddsTheSessionsThatAreStillOpen) {
  Totals totals;
  totals.opened = 2;
  totals.probes = {.received = 5, .distinct = 4, .duplicates = 1, .replies = 5, .unsent = 2};
  SessionTable sessions{SessionLimits{}};
  SessionTable::Node replaced;
  sessions.Open(Session{}, 1000, 0, &replaced);
  sessions.Find(SessionKey{})->run.statistics = {
      .received = 3, .distinct = 3, .out_of_order = 1, .replies = 3, .malformed = 7};
  const std::vector<std::string> lines = DescribeTotals(totals, sessions);
  EXPECT_EQ(
      lines[0],
      "statistics: sessions: open 1, opened 2, ended 0, idle 0, replaced 0, answered again 0, "
      "shortened 0");
  EXPECT_EQ(lines[1],
            "statistics: probes: received 8, distinct 7, duplicates 1, out of order 1, replies 8");
  EXPECT_EQ(lines[2],
            "statistics: probes without reply: stray 0, wrong type or length 7, duplicates beyond "
            "the bound 0, not sent 2, dropped by the kernel 0");
  EXPECT_THAT(lines, Contains("statistics: microseconds from arrival to reply: none"));
}

}  // namespace
}  // namespace ipsla::responder
