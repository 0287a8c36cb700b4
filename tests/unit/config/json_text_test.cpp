#include "config/json_text.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "config/scratch_file.h"

namespace ipsla {
namespace {

std::string Nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonTextTest, FindsTheFirstBracketBeyondTheLimit) {
  struct {
    const char* text;
    std::size_t limit;
    std::size_t position;
  } const rows[] = {
      {"", 1, std::string::npos},
      {"[]", 1, std::string::npos},
      {"[[]]", 1, 1},
      {"{\"a\":[", 1, 5},
      {"[] [] []", 1, std::string::npos},
      {"[{}, [], {\"x\": {}}]", 2, 15},
      {"\"[[[[\"", 1, std::string::npos},
      {R"("\"[[" [[)", 1, 8},
      {R"("\\" [[)", 1, 6},
      {R"(["\)", 1, std::string::npos},
      {"]]]][[", 1, 5},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(FindTooDeep(row.text, row.limit), row.position) << row.text;
  }
}

TEST(JsonTextTest, ParsesUpToTheGreatestDepth) {
  EXPECT_NE(ParseJson(Nested(kMaxJsonDepth)).document, nullptr);
}

TEST(JsonTextTest, RefusesDeeperNestingFromTheOffendingBracketOn) {
  const JsonParse parse = ParseJson(Nested(kMaxJsonDepth + 1));
  EXPECT_EQ(parse.document, nullptr);
  EXPECT_EQ(parse.error_text, "[" + std::string(kMaxJsonDepth + 1, ']'));
  EXPECT_EQ(parse.error_line, 1U);
  EXPECT_EQ(parse.error_column, kMaxJsonDepth + 1);
}

TEST(JsonTextTest, SurvivesNestingThatWouldOverflowTheStack) {
  EXPECT_EQ(ParseJson(std::string(1000000, '[')).document, nullptr);
}

TEST(JsonTextTest, TellsWhereTheFaultIs) {
  struct {
    const char* text;
    const char* error_text;
    std::size_t line;
    std::size_t column;
  } const rows[] = {
      {"", "", 1, 1},
      {"nonsense", "nonsense", 1, 1},
      {"{\"a\": 1,\n \"b\": x}", "x}", 2, 7},
      {"{\n\n}}", nullptr, 0, 0},  // what follows the document is not looked at
      {"[1,\n2,\n  3", "", 3, 4},
  };
  for (const auto& row : rows) {
    const JsonParse parse = ParseJson(row.text);
    if (row.error_text == nullptr) {
      EXPECT_NE(parse.document, nullptr) << row.text;
      EXPECT_FALSE(parse.error_text) << row.text;
    } else {
      EXPECT_EQ(parse.document, nullptr) << row.text;
      EXPECT_EQ(parse.error_text, row.error_text) << row.text;
    }
    EXPECT_EQ(parse.error_line, row.line) << row.text;
    EXPECT_EQ(parse.error_column, row.column) << row.text;
  }
}

TEST(JsonTextTest, EndsTheTextAtItsFirstNul) {
  using namespace std::string_view_literals;
  EXPECT_NE(ParseJson("{}\0[[["sv).document, nullptr);
  EXPECT_EQ(ParseJson("[1,\0 2]"sv).document, nullptr);
}

TEST(JsonTextTest, ReadsNothingBehindAViewThatIsNotTerminated) {
  const std::string text = "[1, 2]]]]]";
  EXPECT_EQ(ParseJson(std::string_view(text).substr(0, 5)).document, nullptr);
  EXPECT_NE(ParseJson(std::string_view(text).substr(0, 6)).document, nullptr);
}

TEST(JsonTextTest, ShortensALongText) {
  const JsonParse parse = ParseJson(R"(["0123456789", "äöü"])");
  const cJSON* digits = cJSON_GetArrayItem(parse.document.get(), 0);
  EXPECT_EQ(ShortJsonText(digits), "\"0123456789\"");
  EXPECT_EQ(ShortJsonText(digits, 12), "\"0123456789\"");
  EXPECT_EQ(ShortJsonText(digits, 11), "\"0123456789...");
  EXPECT_EQ(ShortJsonText(nullptr), "");
}

TEST(JsonTextTest, DoesNotShortenWithinACharacter) {
  const JsonParse parse = ParseJson("\"äöü\"");
  EXPECT_EQ(ShortJsonText(parse.document.get(), 3), "\"ä...");
  EXPECT_EQ(ShortJsonText(parse.document.get(), 4), "\"ä...");
  EXPECT_EQ(ShortJsonText(parse.document.get(), 5), "\"äö...");
}

TEST(ReadWholeFileTest, ReadsEveryByte) {
  std::string content(10000, 'x');
  content[0] = '\0';
  content[9999] = '\n';
  const test::ScratchFile file(content);
  EXPECT_EQ(ReadWholeFile(file.Name()), content);
  const test::ScratchFile empty("");
  EXPECT_EQ(ReadWholeFile(empty.Name()), "");
}

TEST(ReadWholeFileTest, RefusesWhatCannotBeOpenedOrRead) {
  EXPECT_EQ(ReadWholeFile("/no/such/file"), std::nullopt);
  EXPECT_EQ(ReadWholeFile("/tmp"), std::nullopt);
  EXPECT_EQ(ReadWholeFile(""), std::nullopt);
}

}  // namespace
}  // namespace ipsla
