#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/text_table.h"

namespace ipsla::ctl {
namespace {

using testing::ElementsAre;

TextTable Table() {
  return {{{.header = "ID", .right_aligned = true},
           {.header = "VRF", .rank = 2, .least_width = 4},
           {.header = "RTT", .right_aligned = true, .rank = 1},
           {.header = "RUNS", .right_aligned = true, .rank = 3, .optional = true}},
          {{{{"1"}, {"größe"}, {"0.100"}, {"7"}}},
           {{{"12"}, {"-"}, {"-"}, {"8"}}, {{"timeout, no samples", CellStyle::kBad}}}}};
}

TEST(TextTable, AlignsColumnsByWhatIsSeen) {
  EXPECT_THAT(RenderTable(Table(), {}), ElementsAre("ID  VRF      RTT  RUNS",  //
                                                    " 1  größe  0.100     7",  //
                                                    "12  -          -     8",  //
                                                    "  timeout, no samples"));
}

TEST(TextTable, WritesAHeaderForNoRows) {
  TextTable table = Table();
  table.rows.clear();
  EXPECT_THAT(RenderTable(table, {}), ElementsAre("ID  VRF  RTT  RUNS"));
}

TEST(TextTable, FitsTheTerminalExactly) {
  EXPECT_THAT(RenderTable(Table(), {.width = 22}), RenderTable(Table(), {}));
}

TEST(TextTable, LetsOptionalColumnsLeaveFirst) {
  EXPECT_THAT(RenderTable(Table(), {.width = 21}), ElementsAre("ID  VRF      RTT",  //
                                                               " 1  größe  0.100",  //
                                                               "12  -          -",  //
                                                               "  timeout, no samples"));
}

TEST(TextTable, MovesColumnsCloserThenCutsThem) {
  EXPECT_EQ(RenderTable(Table(), {.width = 15})[1], " 1 größe 0.100");
  EXPECT_EQ(RenderTable(Table(), {.width = 13})[1], " 1 grö… 0.100");
}

TEST(TextTable, LetsColumnsLeaveByRankAndBreaksNotes) {
  EXPECT_THAT(RenderTable(Table(), {.width = 12}), ElementsAre("ID   RTT",  //
                                                               " 1 0.100",  //
                                                               "12     -",  //
                                                               "  timeout,", "  no samples"));
}

TEST(TextTable, CutsTheLastColumnThatIsLeft) {
  TextTable table = Table();
  table.rows[1].cells[0].text = "65535";
  EXPECT_THAT(RenderTable(table, {.width = 4}),
              ElementsAre("  ID", "   1", "655…", "  ti", "  me", "  ou", "  t,", "  no", "  sa",
                          "  mp", "  le", "  s"));
}

TEST(TextTable, TellsRowsApart) {
  const TableLines lines = LayOutTable(Table(), {});
  EXPECT_EQ(lines.header, "ID  VRF      RTT  RUNS");
  ASSERT_EQ(lines.rows.size(), 2U);
  EXPECT_EQ(lines.rows[0].size(), 1U);
  EXPECT_EQ(lines.rows[1].size(), 2U);
}

TEST(TextTable, MarksChangesWithoutColour) {
  TextTable table = Table();
  table.rows[0].cells[2].style = CellStyle::kChanged;
  EXPECT_EQ(RenderTable(table, {})[1], " 1  größe  0.100*     7");
  EXPECT_EQ(RenderTable(table, {})[2], "12  -           -     8");
}

TEST(TextTable, ColoursCellsWithoutMovingThem) {
  TextTable table = Table();
  table.rows[0].cells[1].style = CellStyle::kGood;
  table.rows[0].cells[2].style = CellStyle::kChanged;
  EXPECT_THAT(RenderTable(table, {.colour = true}),
              ElementsAre("\x1b[1mID\x1b[0m  \x1b[1mVRF\x1b[0m      \x1b[1mRTT\x1b[0m  "
                          "\x1b[1mRUNS\x1b[0m",
                          " 1  \x1b[32mgröße\x1b[0m  \x1b[7m0.100\x1b[0m     7",
                          "12  -          -     8", "  \x1b[1;31mtimeout, no samples\x1b[0m"));
}

TEST(TextTable, StylesText) {
  EXPECT_EQ(Styled("x", CellStyle::kPlain, true), "x");
  EXPECT_EQ(Styled("", CellStyle::kBad, true), "");
  EXPECT_EQ(Styled("x", CellStyle::kBad, false), "x");
  EXPECT_EQ(Styled("x", CellStyle::kChanged, false), "x*");
}

}  // namespace
}  // namespace ipsla::ctl
