#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/text_table.h"

namespace ipsla::ctl {
namespace {

using testing::ElementsAre;

TextTable Table() {
  return {{{"ID", true}, {"VRF"}, {"RTT/ms", true}, {"ERROR"}},
          {{{"1"}, {"größe"}, {"0.100"}, {"-"}},
           {{"12"}, {"-"}, {"-"}, {"timeout, no samples", CellStyle::kBad}}}};
}

TEST(TextTable, AlignsColumnsByWhatIsSeen) {
  EXPECT_THAT(RenderTable(Table(), {}), ElementsAre("ID  VRF    RTT/ms  ERROR",  //
                                                    " 1  größe   0.100  -",      //
                                                    "12  -           -  timeout, no samples"));
}

TEST(TextTable, WritesAHeaderForNoRows) {
  TextTable table = Table();
  table.rows.clear();
  EXPECT_THAT(RenderTable(table, {}), ElementsAre("ID  VRF  RTT/ms  ERROR"));
}

TEST(TextTable, FitsTheTerminalExactly) {
  EXPECT_THAT(RenderTable(Table(), {.width = 38}), RenderTable(Table(), {}));
}

TEST(TextTable, ShortensTheLastColumnFirst) {
  EXPECT_THAT(RenderTable(Table(), {.width = 36}),
              ElementsAre("ID  VRF    RTT/ms  ERROR",  //
                          " 1  größe   0.100  -",      //
                          "12  -           -  timeout, no samp…"));
}

TEST(TextTable, WritesBlocksWhereATableDoesNotFit) {
  EXPECT_THAT(RenderTable(Table(), {.width = 28}), ElementsAre("ID      1",      //
                                                               "VRF     größe",  //
                                                               "RTT/ms  0.100",  //
                                                               "",               //
                                                               "ID      12",     //
                                                               "ERROR   timeout, no samples"));
}

TEST(TextTable, MarksChangesWithoutColour) {
  TextTable table = Table();
  table.rows[0][2].style = CellStyle::kChanged;
  EXPECT_THAT(RenderTable(table, {}), ElementsAre("ID  VRF    RTT/ms  ERROR",  //
                                                  " 1  größe  0.100*  -",      //
                                                  "12  -           -  timeout, no samples"));
}

TEST(TextTable, ColoursCellsWithoutMovingThem) {
  TextTable table = Table();
  table.rows[0][1].style = CellStyle::kGood;
  table.rows[0][2].style = CellStyle::kChanged;
  EXPECT_THAT(
      RenderTable(table, {.colour = true}),
      ElementsAre(
          "\x1b[1mID\x1b[0m  \x1b[1mVRF\x1b[0m    \x1b[1mRTT/ms\x1b[0m  \x1b[1mERROR\x1b[0m",
          " 1  \x1b[32mgröße\x1b[0m   \x1b[7m0.100\x1b[0m  -",
          "12  -           -  \x1b[1;31mtimeout, no samples\x1b[0m"));
}

TEST(TextTable, StylesText) {
  EXPECT_EQ(Styled("x", CellStyle::kPlain, true), "x");
  EXPECT_EQ(Styled("", CellStyle::kBad, true), "");
  EXPECT_EQ(Styled("x", CellStyle::kBad, false), "x");
  EXPECT_EQ(Styled("x", CellStyle::kChanged, false), "x*");
}

}  // namespace
}  // namespace ipsla::ctl
