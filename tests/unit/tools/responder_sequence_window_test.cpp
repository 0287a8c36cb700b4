#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "responder/sequence_window.h"

namespace ipsla::responder {
namespace {

using Seen = SequenceWindow::Seen;

TEST(SequenceWindow, TellsFirstLateAndRepeatedNumbersApart) {
  SequenceWindow window;
  EXPECT_EQ(window.Note(2), Seen::kFirst);
  EXPECT_EQ(window.Note(2), Seen::kBefore);
  EXPECT_EQ(window.Note(5), Seen::kFirst);
  EXPECT_EQ(window.Note(1), Seen::kFirstOutOfOrder);
  EXPECT_EQ(window.Note(1), Seen::kBefore);
  EXPECT_EQ(window.Note(4), Seen::kFirstOutOfOrder);
  EXPECT_EQ(window.Note(0), Seen::kFirstOutOfOrder);
  EXPECT_EQ(window.Note(5), Seen::kBefore);
  EXPECT_EQ(window.Highest(), 5U);
}

TEST(SequenceWindow, CountsNumbersBelowTheWindowAsSeen) {
  SequenceWindow window;
  const std::uint64_t highest = 3 * SequenceWindow::kSize;
  EXPECT_EQ(window.Note(highest), Seen::kFirst);
  EXPECT_EQ(window.Note(highest - SequenceWindow::kSize), Seen::kBefore);
  EXPECT_EQ(window.Note(highest - SequenceWindow::kSize + 1), Seen::kFirstOutOfOrder);
}

TEST(SequenceWindow, ForgetsWhatAJumpMovesOver) {
  SequenceWindow window;
  for (std::uint64_t i = 0; i < SequenceWindow::kSize; ++i) ASSERT_EQ(window.Note(i), Seen::kFirst);
  EXPECT_EQ(window.Note(0xffffffffU), Seen::kFirst);
  EXPECT_EQ(window.Note(0xfffffffeU), Seen::kFirstOutOfOrder);
  EXPECT_EQ(window.Note(7), Seen::kBefore);
}

// Against a set that remembers everything, with jumps around the window's size.
TEST(SequenceWindow, AgreesWithAnUnboundedMemoryInsideItsWindow) {
  SequenceWindow window;
  std::set<std::uint64_t> seen;
  std::uint64_t state = 12345;
  std::uint64_t highest = 0;
  for (int i = 0; i < 50000; ++i) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    const std::uint64_t sequence =
        highest + (state >> 33U) % 40 - std::min<std::uint64_t>(highest, 30);
    const bool first = seen.insert(sequence).second;
    const Seen expected = !first                ? Seen::kBefore
                          : sequence >= highest ? Seen::kFirst
                                                : Seen::kFirstOutOfOrder;
    ASSERT_EQ(window.Note(sequence), expected) << i << " " << sequence;
    highest = std::max(highest, sequence);
  }
}

TEST(ExtendSequence, GoesOnCountingAfter65535) {
  struct Row {
    std::uint16_t low;
    std::uint64_t highest, expected;
  };
  constexpr Row kRows[] = {
      {1, 0, 1},
      {0, 0, 0},
      {65535, 65534, 65535},
      {0, 65535, 65536},
      {1, 65535, 65537},
      {65535, 65537, 65535},
      {5, 131072, 131077},
      {32767, 0, 32767},
      {65535, 0, 65535},
      {32768, 0, 32768},
      {40000, 40010, 40000},
  };
  for (const Row& row : kRows) {
    EXPECT_EQ(ExtendSequence(row.low, row.highest), row.expected) << row.low;
  }
}

}  // namespace
}  // namespace ipsla::responder
