#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "config/json_text.h"
#include "ctl/json_positions.h"
#include "ctl/remark.h"

namespace ipsla::ctl {
namespace {

/// A document and where its values are.
struct Positioned {
  explicit Positioned(const std::string& text)
      : document(ParseJson(text).document), positions(text, document.get()) {}

  [[nodiscard]] TextPlace Value(const std::string& key) const {
    return positions.OfValue(MemberAt(document.get(), key));
  }
  [[nodiscard]] TextPlace Name(const std::string& key) const {
    return positions.OfName(MemberAt(document.get(), key));
  }

  JsonDocument document;
  JsonPositions positions;
};

TEST(JsonPositions, FindsEveryKindOfValue) {
  const Positioned json(
      "{\"a\": 1.5e3, \"b\":\"x\",\n \"c\" : true,\n\"d\":null,\"e\":[ 1 ,{}, [] "
      "],\"f\":{\"g\":false}}");
  EXPECT_EQ(json.positions.OfValue(json.document.get()), (TextPlace{1, 1}));
  EXPECT_EQ(json.Name("a"), (TextPlace{1, 2}));
  EXPECT_EQ(json.Value("a"), (TextPlace{1, 7}));
  EXPECT_EQ(json.Value("b"), (TextPlace{1, 18}));
  EXPECT_EQ(json.Name("c"), (TextPlace{2, 2}));
  EXPECT_EQ(json.Value("c"), (TextPlace{2, 8}));
  EXPECT_EQ(json.Value("d"), (TextPlace{3, 5}));
  const cJSON* array = cJSON_GetObjectItem(json.document.get(), "e");
  EXPECT_EQ(json.positions.OfValue(cJSON_GetArrayItem(array, 1)), (TextPlace{3, 19}));
  EXPECT_EQ(json.positions.OfValue(cJSON_GetArrayItem(array, 2)), (TextPlace{3, 23}));
  EXPECT_EQ(json.Value("f.g"), (TextPlace{3, 37}));
}

TEST(JsonPositions, IsNotMisledByStrings) {
  const Positioned json(R"({"}\"": "]\\", "\u007d,": "{\"", "z": 1})");
  EXPECT_EQ(json.Value("z"), (TextPlace{1, 39}));
  EXPECT_EQ(json.positions.End(), 40U);
}

TEST(JsonPositions, TellsMembersWithOneNameApart) {
  const Positioned json(R"({"a": 1, "a": 2})");
  const cJSON* second = json.document->child->next;
  EXPECT_EQ(json.positions.OfName(second), (TextPlace{1, 10}));
  EXPECT_EQ(json.positions.OfValue(second), (TextPlace{1, 15}));
}

TEST(JsonPositions, KnowsTheDocumentsEnd) {
  EXPECT_EQ(Positioned(" [1, 2]  x").positions.End(), 7U);
  EXPECT_EQ(Positioned("\xEF\xBB\xBF{}").positions.End(), 5U);
  EXPECT_EQ(Positioned("12 ").positions.End(), 2U);
}

TEST(JsonPositions, TakesOffsetsOfTextsThatAreNoJson) {
  const JsonPositions positions("a\nbc\n", nullptr);
  EXPECT_EQ(positions.At(0), (TextPlace{1, 1}));
  EXPECT_EQ(positions.At(3), (TextPlace{2, 2}));
  EXPECT_EQ(positions.At(5), (TextPlace{3, 1}));
  EXPECT_EQ(positions.OfValue(nullptr), TextPlace{});
}

}  // namespace
}  // namespace ipsla::ctl
