#include "api/sender_api_message.h"

#include <bit>
#include <numeric>

#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/json_text.h"

namespace ipsla {
namespace {

using testing::ElementsAre;

static_assert(std::endian::native == std::endian::little,
              "the byte literals below spell host order as little endian");

/// A header whose every byte is told apart: nothing that must be echoed can be mistaken for a
/// default.
constexpr std::array<std::uint8_t, 28> kOddHeader{
    0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0x01, 0xF6, 0xB0, 0xB1, 0x11, 0x22,
    0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x02, 0x00, 0x00, 0x00, 0x99, 0xAA, 0xBB, 0xCC};

ApiHeader OddHeader() {
  return DecodeApiHeader(kOddHeader);
}

std::string_view Text(const ApiBytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// What the fragments of a reply carry, put together; checks each datagram's numbers and lengths on
/// the way.
std::string JoinFragments(const std::vector<ApiBytes>& datagrams, std::vector<std::size_t>* slices,
                          std::vector<bool>* more) {
  std::string joined;
  for (std::size_t index = 0; index < datagrams.size(); ++index) {
    const ApiBytes& datagram = datagrams[index];
    const ApiHeader header = DecodeApiHeader(datagram);
    EXPECT_EQ(header.fragment_number, index + 1);
    EXPECT_EQ(header.datagram_length, datagram.size());
    EXPECT_EQ(header.block_length, datagram.size() - 20);
    EXPECT_EQ(header.result, kApiSuccess);
    slices->push_back(datagram.size() - kApiHeaderSize);
    more->push_back((header.flags & kApiMoreFragments) != 0);
    joined += Text(datagram).substr(kApiHeaderSize);
  }
  return joined;
}

/// A text in which a misplaced slice is seen.
std::string NumberedText(std::size_t size) {
  std::string text(size, ' ');
  for (std::size_t index = 0; index < size; ++index) {
    text[index] = static_cast<char>('!' + (index * 7 + index / 8164) % 90);
  }
  return text;
}

std::set<std::string> Groups(const char* json) {
  const JsonDocument document(cJSON_Parse(json));
  const auto groups = ReadMetricGroups(document.get());
  EXPECT_TRUE(groups.has_value()) << json;
  return groups.value_or(std::set<std::string>{});
}

TEST(SenderApiMessage, ReadsEveryHeaderFieldInItsByteOrder) {
  const ApiHeader header = OddHeader();
  EXPECT_THAT(header.prefix, ElementsAre(0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7));
  EXPECT_EQ(header.request_marker, 1);
  EXPECT_EQ(header.flags, 0xF6);
  EXPECT_THAT(header.reserved, ElementsAre(0xB0, 0xB1));
  EXPECT_EQ(header.fragment_number, 0x11223344U);
  EXPECT_EQ(header.datagram_length, 0x55667788U);
  EXPECT_EQ(header.command, 2);
  EXPECT_EQ(header.result, 0);
  EXPECT_EQ(header.block_length, 0x99AABBCCU);
}

TEST(SenderApiMessage, EncodesWhatItDecoded) {
  EXPECT_EQ(EncodeApiHeader(OddHeader()), kOddHeader);
}

TEST(SenderApiMessage, ReadsHeaderBytesThatWereNotReceivedAsZero) {
  for (std::size_t received = 0; received <= kApiHeaderSize; ++received) {
    auto expected = kOddHeader;
    std::fill(expected.begin() + static_cast<std::ptrdiff_t>(received), expected.end(),
              std::uint8_t{0});
    const auto header = DecodeApiHeader(std::span(kOddHeader).first(received));
    EXPECT_EQ(EncodeApiHeader(header), expected) << received << " bytes";
  }
}

TEST(SenderApiMessage, EndsThePayloadAtItsNulOrAtTheEndOfWhatWasReceived) {
  const struct {
    std::string_view payload;
    std::string_view text;
  } cases[] = {
      {std::string_view("{}\0", 3), "{}"}, {"{}", "{}"}, {std::string_view("{}\0junk", 7), "{}"},
      {std::string_view("\0{}", 3), ""},   {"", ""},
  };
  for (const auto& one : cases) {
    ApiBytes datagram(kOddHeader.begin(), kOddHeader.end());
    datagram.insert(datagram.end(), one.payload.begin(), one.payload.end());
    EXPECT_EQ(ApiPayloadText(datagram), one.text);
  }
}

TEST(SenderApiMessage, FindsNoPayloadInADatagramShorterThanItsHeader) {
  EXPECT_EQ(ApiPayloadText({}), "");
  EXPECT_EQ(ApiPayloadText(std::span(kOddHeader).first(27)), "");
}

TEST(SenderApiMessage, NamesCommands) {
  EXPECT_STREQ(ApiCommandName(0), "SENDER_API_CSLD_GET_TASK_STATISTICS");
  EXPECT_STREQ(ApiCommandName(1), "SENDER_API_CSLD_GET_ALL_ACTIVE_TASK_STATISTICS");
  EXPECT_STREQ(ApiCommandName(2), "SENDER_API_CSLD_GET_TASK_STATUS");
  EXPECT_STREQ(ApiCommandName(3), "SENDER_API_CSLD_PARSE_TASKS_CONFIG");
  EXPECT_STREQ(ApiCommandName(4), "SENDER_API_CSLD_PARSE_KEYCHAIN_CONFIG");
  EXPECT_STREQ(ApiCommandName(5), "unknown command");
  EXPECT_STREQ(ApiCommandName(7), "unknown command");
  EXPECT_STREQ(ApiCommandName(65535), "unknown command");
}

TEST(SenderApiMessage, BuildsARequestWithItsNulTerminatedText) {
  const ApiBytes request = BuildApiRequest(ApiCommand::kGetTaskStatus, R"({"tasks":[1]})");
  const ApiBytes header{0, 0, 0, 0, 0, 0,  0, 0, 1, 0, 0, 0, 0, 0,
                        0, 0, 0, 0, 0, 42, 2, 0, 0, 0, 0, 0, 0, 22};
  EXPECT_EQ(ApiBytes(request.begin(), request.begin() + 28), header);
  EXPECT_EQ(Text(request).substr(28), std::string_view("{\"tasks\":[1]}\0", 14));
}

TEST(SenderApiMessage, BuildsARequestWithoutTextAsItsHeaderAlone) {
  const ApiBytes header{0, 0, 0, 0, 0, 0,  0, 0, 1, 0, 0, 0, 0, 0,
                        0, 0, 0, 0, 0, 28, 3, 0, 0, 0, 0, 0, 0, 8};
  EXPECT_EQ(BuildApiRequest(ApiCommand::kParseTasksConfig, ""), header);
}

TEST(SenderApiMessage, AnswersAWrongMarkerWithTheHeaderAndTheFailureResult) {
  auto bytes = kOddHeader;
  bytes[8] = 0;
  bytes[9] = 0xF7;
  const ApiBytes expected{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0x00, 0xF6,
                          0xB0, 0xB1, 0x11, 0x22, 0x33, 0x44, 0x00, 0x00, 0x00, 28,
                          0x02, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 8};
  EXPECT_EQ(BuildHeaderReply(DecodeApiHeader(bytes), kApiFailure), expected);
}

TEST(SenderApiMessage, ReplacesTheResultOfARequestThatHadOne) {
  auto bytes = kOddHeader;
  bytes[22] = 7;
  const ApiBytes reply = BuildHeaderReply(DecodeApiHeader(bytes), kApiFailure);
  EXPECT_EQ(reply.size(), 28U);
  EXPECT_EQ(DecodeApiHeader(reply).result, 4);
}

TEST(SenderApiMessage, AnswersAnUnknownCommandWithItsHeaderAndSuccess) {
  auto bytes = kOddHeader;
  bytes[20] = 7;
  const ApiBytes expected{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0x01, 0xF6,
                          0xB0, 0xB1, 0x11, 0x22, 0x33, 0x44, 0x00, 0x00, 0x00, 28,
                          0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 8};
  EXPECT_EQ(BuildHeaderReply(DecodeApiHeader(bytes), kApiSuccess), expected);
}

TEST(SenderApiMessage, BuildsAShortJsonReplyByteForByte) {
  const auto datagrams = BuildJsonReply(OddHeader(), R"({"tasks":[]})");
  ASSERT_EQ(datagrams.size(), 1U);
  const ApiBytes header{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0x01, 0xF6,
                        0xB0, 0xB1, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 41,
                        0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 21};
  EXPECT_EQ(ApiBytes(datagrams[0].begin(), datagrams[0].begin() + 28), header);
  EXPECT_EQ(Text(datagrams[0]).substr(28), std::string_view("{\"tasks\":[]}\0", 13));
}

TEST(SenderApiMessage, CutsReplyTextAndNulIntoSlices) {
  const struct {
    std::size_t characters;
    std::vector<std::size_t> slices;
    std::vector<bool> more;
  } cases[] = {
      {0, {1}, {false}},
      {8162, {8163}, {false}},
      // The text and its NUL fill one datagram: it says that more follow, and nothing does.
      {8163, {8164}, {true}},
      {8164, {8164, 1}, {true, false}},
      {16326, {8164, 8163}, {true, false}},
      {16327, {8164, 8164}, {true, true}},
      {16328, {8164, 8164, 1}, {true, true, false}},
      {20000, {8164, 8164, 3673}, {true, true, false}},
  };
  for (const auto& one : cases) {
    const std::string text = NumberedText(one.characters);
    std::vector<std::size_t> slices;
    std::vector<bool> more;
    const std::string joined = JoinFragments(BuildJsonReply(OddHeader(), text), &slices, &more);
    EXPECT_EQ(slices, one.slices) << one.characters;
    EXPECT_EQ(more, one.more) << one.characters;
    EXPECT_TRUE(joined == text + '\0') << one.characters;
  }
}

TEST(SenderApiMessage, EchoesTheOtherFlagsInEveryFragment) {
  auto bytes = kOddHeader;
  for (const int flags : {0x00, 0x01, 0xFE, 0xFF}) {
    bytes[9] = static_cast<std::uint8_t>(flags);
    const auto datagrams = BuildJsonReply(DecodeApiHeader(bytes), NumberedText(9000));
    ASSERT_EQ(datagrams.size(), 2U);
    EXPECT_EQ(datagrams[0][9], flags | 1);
    EXPECT_EQ(datagrams[1][9], flags & 0xFE);
  }
}

TEST(SenderApiMessage, MergesRepeatedMetricGroupsSortedAndDropsUnknownNames) {
  EXPECT_THAT(Groups(R"(["loss-values","rtt-values","loss-values","no-such-values"])"),
              ElementsAre("loss-values", "rtt-values"));
}

TEST(SenderApiMessage, ReadsAllFiveMetricGroups) {
  EXPECT_EQ(
      Groups(
          R"(["rtt-values","one-way-latency-values","jitter-values","loss-values","out-of-sequence-values"])"),
      MetricGroupNames());
  EXPECT_EQ(MetricGroupNames().size(), 5U);
}

TEST(SenderApiMessage, DropsMetricsThatAreNotTexts) {
  EXPECT_THAT(
      Groups(R"([1,null,true,["rtt-values"],{"a":"rtt-values"},"","RTT-values","rtt-values"])"),
      ElementsAre("rtt-values"));
  EXPECT_TRUE(Groups("[]").empty());
}

TEST(SenderApiMessage, RefusesMetricsThatAreNoArray) {
  EXPECT_FALSE(ReadMetricGroups(nullptr).has_value());
  for (const char* json : {"{}", "5", "\"rtt-values\"", "null", "true", R"({"0":"rtt-values"})"}) {
    const JsonDocument document(cJSON_Parse(json));
    ASSERT_NE(document, nullptr) << json;
    EXPECT_FALSE(ReadMetricGroups(document.get()).has_value()) << json;
  }
}

}  // namespace
}  // namespace ipsla
