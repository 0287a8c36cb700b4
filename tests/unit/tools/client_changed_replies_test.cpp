// Every truncation and single-byte changes of the daemon's replies, as the tools read them.

#include <gtest/gtest.h>

#include "client/reply_assembler.h"
#include "support/mutations.h"

namespace ipsla::client {
namespace {

using Outcome = ReplyAssembler::Outcome;
using FragmentBytes = std::vector<std::uint8_t>;

constexpr ReplyTag kChangedTag{1, 2, 3, 4, 5, 6, 7, 8};

class ChangedApiReplyTest : public testing::Test {
 protected:
  ChangedApiReplyTest() {
    ApiHeader header;
    header.prefix = kChangedTag;
    header.command = 1;
    text_ = R"({"tasks":[)" + std::string(8200, ' ') + "]}";
    for (const ApiBytes& fragment : BuildJsonReply(header, text_)) {
      fragments_.emplace_back(fragment.begin(), fragment.end());
    }
  }

  // The text when `changed` comes in place of a fragment, if a whole reply comes of it.
  std::optional<std::string> Assemble(const FragmentBytes& changed, std::size_t place) const {
    ReplyAssembler assembler(kChangedTag, 1);
    for (std::size_t index = 0; index < fragments_.size(); ++index) {
      switch (assembler.Add(index == place ? changed : fragments_[index])) {
        case Outcome::kComplete:
          return assembler.Text();
        case Outcome::kMalformed:
          EXPECT_FALSE(assembler.Fault().empty());
          return std::nullopt;
        case Outcome::kRefused:
          return std::nullopt;
        default:
          break;
      }
    }
    return std::nullopt;
  }

  std::string text_;
  std::vector<FragmentBytes> fragments_;
};

TEST_F(ChangedApiReplyTest, TruncatedRepliesAreNotTaken) {
  ASSERT_EQ(fragments_.size(), 2U);
  ASSERT_EQ(Assemble(fragments_[1], 1), text_);
  test::ForEachTruncation(fragments_[1], [this](const FragmentBytes& part) {
    ASSERT_EQ(Assemble(part, 1), std::nullopt) << part.size();
  });
}

TEST_F(ChangedApiReplyTest, NoChangeOfAHeaderYieldsAnotherText) {
  for (std::size_t place = 0; place < 2; ++place) {
    FragmentBytes changed = fragments_[place];
    for (std::size_t offset = 0; offset < kApiHeaderSize; ++offset) {
      for (unsigned step = 1; step < 256; ++step) {
        changed[offset] = static_cast<std::uint8_t>(fragments_[place][offset] + step);
        const auto text = Assemble(changed, place);
        ASSERT_TRUE(!text || *text == text_) << "byte " << offset << " of fragment " << place;
      }
      changed[offset] = fragments_[place][offset];
    }
  }
}

}  // namespace
}  // namespace ipsla::client
