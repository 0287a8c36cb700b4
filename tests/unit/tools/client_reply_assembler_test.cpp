#include <algorithm>
#include <numeric>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/reply_assembler.h"

namespace ipsla::client {
namespace {

using Outcome = ReplyAssembler::Outcome;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr ReplyTag kTag{1, 2, 3, 4, 5, 6, 7, 8};
constexpr std::uint16_t kCommand = 1;

ApiHeader RequestHeader() {
  ApiHeader header;
  header.prefix = kTag;
  header.command = kCommand;
  return header;
}

std::string NumberedText(std::size_t size) {
  std::string text(size, ' ');
  for (std::size_t index = 0; index < size; ++index) {
    text[index] = static_cast<char>('!' + (index * 7 + index / 8164) % 90);
  }
  return text;
}

/// The fragments of a reply with so many characters.
std::vector<ApiBytes> Reply(std::size_t characters) {
  return BuildJsonReply(RequestHeader(), NumberedText(characters));
}

TEST(ReplyAssembler, JoinsRepliesOfEveryLengthAroundTheSliceSize) {
  for (const std::size_t size : {0U, 1U, 8162U, 8163U, 8164U, 16326U, 16327U, 16328U, 20000U}) {
    ReplyAssembler assembler(kTag, kCommand);
    const auto datagrams = Reply(size);
    for (std::size_t index = 0; index + 1 < datagrams.size(); ++index) {
      EXPECT_EQ(assembler.Add(datagrams[index]), Outcome::kMore) << size;
    }
    EXPECT_EQ(assembler.Add(datagrams.back()), Outcome::kComplete) << size;
    EXPECT_TRUE(assembler.Text() == NumberedText(size)) << size;
  }
}

TEST(ReplyAssembler, JoinsFragmentsInEveryOrder) {
  const auto datagrams = Reply(30000);
  ASSERT_EQ(datagrams.size(), 4U);
  std::vector<std::size_t> order{0, 1, 2, 3};
  do {
    ReplyAssembler assembler(kTag, kCommand);
    for (std::size_t step = 0; step < order.size(); ++step) {
      EXPECT_EQ(assembler.Add(datagrams[order[step]]),
                step == 3 ? Outcome::kComplete : Outcome::kMore);
    }
    EXPECT_TRUE(assembler.Text() == NumberedText(30000));
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(ReplyAssembler, IgnoresARepeatedFragment) {
  const auto datagrams = Reply(9000);
  ReplyAssembler assembler(kTag, kCommand);
  EXPECT_EQ(assembler.Add(datagrams[1]), Outcome::kMore);
  EXPECT_EQ(assembler.Add(datagrams[1]), Outcome::kIgnored);
  EXPECT_EQ(assembler.Add(datagrams[0]), Outcome::kComplete);
  EXPECT_TRUE(assembler.Text() == NumberedText(9000));
}

TEST(ReplyAssembler, NamesTheFragmentsThatAreMissing) {
  const auto datagrams = Reply(40000);
  ASSERT_EQ(datagrams.size(), 5U);
  ReplyAssembler assembler(kTag, kCommand);
  EXPECT_THAT(assembler.Missing(), IsEmpty());
  EXPECT_EQ(assembler.Add(datagrams[1]), Outcome::kMore);
  EXPECT_EQ(assembler.Add(datagrams[4]), Outcome::kMore);
  EXPECT_THAT(assembler.Missing(), ElementsAre(1U, 3U, 4U));
  EXPECT_EQ(assembler.FragmentCount(), 2U);
}

TEST(ReplyAssembler, IgnoresWhatIsNoReplyToItsRequest) {
  ApiHeader other_tag = RequestHeader();
  other_tag.prefix[7] = 9;
  ApiHeader other_command = RequestHeader();
  other_command.command = 2;
  ReplyAssembler assembler(kTag, kCommand);
  EXPECT_EQ(assembler.Add(BuildJsonReply(other_tag, "{}").front()), Outcome::kIgnored);
  EXPECT_EQ(assembler.Add(BuildJsonReply(other_command, "{}").front()), Outcome::kIgnored);
  EXPECT_EQ(assembler.Add(ApiBytes(27)), Outcome::kIgnored);
  EXPECT_EQ(assembler.Add({}), Outcome::kIgnored);
  EXPECT_EQ(assembler.FragmentCount(), 0U);
}

TEST(ReplyAssembler, TakesAHeaderAloneAsDoneOrRefused) {
  ReplyAssembler done(kTag, kCommand);
  EXPECT_EQ(done.Add(BuildHeaderReply(RequestHeader(), kApiSuccess)), Outcome::kComplete);
  EXPECT_EQ(done.Text(), "");
  ReplyAssembler refused(kTag, kCommand);
  EXPECT_EQ(refused.Add(BuildHeaderReply(RequestHeader(), kApiFailure)), Outcome::kRefused);
}

/// A datagram with these fields, its lengths right.
ApiBytes Fragment(std::uint32_t number, bool more, const std::string& slice) {
  ApiHeader header = RequestHeader();
  header.fragment_number = number;
  header.flags = more ? 1 : 0;
  header.datagram_length = static_cast<std::uint32_t>(28 + slice.size());
  header.block_length = static_cast<std::uint32_t>(8 + slice.size());
  const auto bytes = EncodeApiHeader(header);
  ApiBytes datagram(bytes.begin(), bytes.end());
  datagram.insert(datagram.end(), slice.begin(), slice.end());
  return datagram;
}

TEST(ReplyAssembler, RefusesFragmentsThatContradictThemselves) {
  const std::string full(8164, 'x');
  const std::string end("x\0", 2);
  const struct {
    const char* what;
    ApiBytes datagram;
  } cases[] = {
      {"number 0", Fragment(0, false, end)},
      {"an absurd number", Fragment(4000000000U, true, full)},
      {"a NUL within", Fragment(1, false, std::string("x\0x\0", 4))},
      {"the last one without NUL", Fragment(1, false, full)},
      {"more to come after a short slice", Fragment(1, true, "x")},
  };
  for (const auto& one : cases) {
    ReplyAssembler assembler(kTag, kCommand);
    EXPECT_EQ(assembler.Add(one.datagram), Outcome::kMalformed) << one.what;
    EXPECT_FALSE(assembler.Fault().empty()) << one.what;
  }
}

TEST(ReplyAssembler, RefusesLengthsThatDoNotMatch) {
  for (const std::size_t offset : {19U, 27U}) {
    ApiBytes datagram = Fragment(1, false, std::string("x\0", 2));
    ++datagram[offset];
    ReplyAssembler assembler(kTag, kCommand);
    EXPECT_EQ(assembler.Add(datagram), Outcome::kMalformed) << offset;
  }
}

TEST(ReplyAssembler, RefusesFragmentsThatContradictEachOther) {
  const std::string full(8164, 'x');
  const std::string other(8164, 'y');
  const std::string end("x\0", 2);
  const struct {
    const char* what;
    ApiBytes first, second;
  } cases[] = {
      {"one number, two slices", Fragment(1, true, full), Fragment(1, true, other)},
      {"a fragment behind the last", Fragment(2, false, end), Fragment(3, true, full)},
      {"two last ones", Fragment(3, false, end), Fragment(2, false, end)},
      {"a last one before a known one", Fragment(3, true, full), Fragment(2, false, end)},
      {"a header alone among fragments", Fragment(1, true, full),
       BuildHeaderReply(RequestHeader(), kApiSuccess)},
  };
  for (const auto& one : cases) {
    ReplyAssembler assembler(kTag, kCommand);
    EXPECT_EQ(assembler.Add(one.first), Outcome::kMore) << one.what;
    EXPECT_EQ(assembler.Add(one.second), Outcome::kMalformed) << one.what;
  }
}

TEST(ReplyAssembler, SurvivesLossDuplicationAndReorderingAtRandom) {
  std::mt19937 random(1);
  for (int round = 0; round < 200; ++round) {
    const auto datagrams = Reply(8164U * (1 + random() % 6) + random() % 3);
    std::vector<std::size_t> arrivals;
    for (std::size_t index = 0; index < datagrams.size(); ++index) {
      arrivals.insert(arrivals.end(), random() % 3, index);
    }
    std::shuffle(arrivals.begin(), arrivals.end(), random);
    ReplyAssembler assembler(kTag, kCommand);
    std::set<std::size_t> seen;
    for (const std::size_t index : arrivals) {
      const bool is_new = seen.insert(index).second;
      const Outcome expected = !is_new                           ? Outcome::kIgnored
                               : seen.size() == datagrams.size() ? Outcome::kComplete
                                                                 : Outcome::kMore;
      ASSERT_EQ(assembler.Add(datagrams[index]), expected);
    }
    ASSERT_EQ(assembler.FragmentCount(), seen.size());
  }
}

}  // namespace
}  // namespace ipsla::client
