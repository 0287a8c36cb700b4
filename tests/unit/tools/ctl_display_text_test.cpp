#include <cmath>

#include <gtest/gtest.h>

#include "ctl/display_text.h"

namespace ipsla::ctl {
namespace {

TEST(DisplayText, KeepsTextAndReplacesWhatATerminalWouldObey) {
  const struct {
    std::string text, printable;
  } cases[] = {
      {"", ""},
      {"blue", "blue"},
      {"größe", "größe"},
      {"東京", "東京"},
      {"\x1b[2Jx", "\uFFFD[2Jx"},
      {"a\nb\tc\x7f", "a\uFFFDb\uFFFDc\uFFFD"},
      {std::string("a\0b", 3), "a\uFFFDb"},
      {"\u0085", "\uFFFD"},
      {"\u202Eevil", "\uFFFDevil"},
      {"\xff", "\uFFFD"},
      {"\xC3", "\uFFFD"},
      {"\xC3(", "\uFFFD("},
      {"\xC0\xAF", "\uFFFD\uFFFD"},
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
      {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"\xE2\x82", "\uFFFD\uFFFD"},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(Printable(one.text), one.printable) << one.text;
  }
}

TEST(DisplayText, CountsColumnsNotBytes) {
  EXPECT_EQ(DisplayWidth(""), 0U);
  EXPECT_EQ(DisplayWidth("blue"), 4U);
  EXPECT_EQ(DisplayWidth("größe"), 5U);
  EXPECT_EQ(DisplayWidth("e\u0301"), 1U);
  EXPECT_EQ(DisplayWidth("東京"), 4U);
  EXPECT_EQ(DisplayWidth("\U0001F600"), 2U);
}

TEST(DisplayText, PadsToColumns) {
  EXPECT_EQ(PadRight("größe", 7), "größe  ");
  EXPECT_EQ(PadLeft("東京", 6), "  東京");
  EXPECT_EQ(PadRight("longer", 3), "longer");
  EXPECT_EQ(PadLeft("longer", 3), "longer");
}

TEST(DisplayText, ShortensToColumns) {
  EXPECT_EQ(Shorten("timeout", 7), "timeout");
  EXPECT_EQ(Shorten("timeout", 6), "timeo…");
  EXPECT_EQ(Shorten("timeout", 1), "…");
  EXPECT_EQ(Shorten("東京都", 5), "東京…");
  EXPECT_EQ(Shorten("東京都", 4), "東…");
}

TEST(DisplayText, BreaksLinesAtSpaces) {
  using Lines = std::vector<std::string>;
  EXPECT_EQ(WrapText("timeout, no samples", 0), Lines{"timeout, no samples"});
  EXPECT_EQ(WrapText("timeout, no samples", 19), Lines{"timeout, no samples"});
  EXPECT_EQ(WrapText("timeout, no samples", 11), (Lines{"timeout, no", "samples"}));
  EXPECT_EQ(WrapText("timeout, no samples", 10), (Lines{"timeout,", "no samples"}));
  EXPECT_EQ(WrapText("timeout, no", 5), (Lines{"timeo", "ut,", "no"}));
  EXPECT_EQ(WrapText("東京都", 3), (Lines{"東", "京", "都"}));
  EXPECT_EQ(WrapText("東", 1), Lines{"東"}) << "there is no narrower way";
  EXPECT_EQ(WrapText("", 5), Lines{""});
}

TEST(DisplayText, WritesAges) {
  const struct {
    std::int64_t seconds;
    const char* text;
  } cases[] = {{-5, "0s"},        {0, "0s"},        {12, "12s"},       {59, "59s"},
               {60, "1m00s"},     {185, "3m05s"},   {3599, "59m59s"},  {3600, "1h00m"},
               {86399, "23h59m"}, {86400, "1d00h"}, {183600, "2d03h"}, {4294967, "49d17h"}};
  for (const auto& one : cases) {
    EXPECT_EQ(AgeText(one.seconds), one.text);
  }
}

TEST(DisplayText, WritesNumbersWithoutNeedlessDecimals) {
  EXPECT_EQ(NumberText(std::nullopt, 1), "-");
  EXPECT_EQ(NumberText(0.0, 1), "0");
  EXPECT_EQ(NumberText(-0.01, 1), "0");
  EXPECT_EQ(NumberText(100.0, 1), "100");
  EXPECT_EQ(NumberText(12.54, 1), "12.5");
  EXPECT_EQ(NumberText(1.2, 3), "1.2");
  EXPECT_EQ(NumberText(1200.0, 0), "1200");
}

TEST(DisplayText, WritesMillisecondsWithFourDigits) {
  EXPECT_EQ(MillisecondsText(std::nullopt), "-");
  EXPECT_EQ(MillisecondsText(0.0), "0.000");
  EXPECT_EQ(MillisecondsText(0.0521), "0.052");
  EXPECT_EQ(MillisecondsText(12.345), "12.35");
  EXPECT_EQ(MillisecondsText(123.45), "123.5");
  EXPECT_EQ(MillisecondsText(1234.5), "1234");
  EXPECT_EQ(MillisecondsText(-1.5), "-1.500");
}

}  // namespace
}  // namespace ipsla::ctl
