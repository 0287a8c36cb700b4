#include "udp/digest.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/golden_requests.h"

namespace ipsla {
namespace {

using test::FromHex;
using test::ToHex;

ControlMessageBytes GoldenMessage(const char* hex) {
  ControlMessageBytes message{};
  std::ranges::copy(FromHex(hex), message.begin());
  return message;
}

// The udp-jitter request in password mode with the algorithm, nonce filled and digest zero.
ControlMessageBytes UnsignedMessage(SlaAuthAlgorithm algorithm) {
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    if (golden.type != SlaTestType::kUdpJitter || golden.mode != SlaAuthMode::kPassword) continue;
    if (golden.algorithm != algorithm) continue;
    ControlMessageBytes message = GoldenMessage(golden.hex);
    std::fill_n(message.begin() + kDigestOffset, kDigestSize, std::uint8_t{0});
    return message;
  }
  ADD_FAILURE() << "no such golden request";
  return {};
}

std::string DigestText(SlaAuthAlgorithm algorithm, const ControlMessageBytes& message,
                       std::string_view key) {
  const std::optional<Digest> digest = MessageDigest(algorithm, message, key);
  return digest ? ToHex(*digest) : "none";
}

TEST(MessageDigest, IsTheGoldenOneOfEverySignedRequestWhateverTheDigestFieldHolds) {
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    if (golden.mode == SlaAuthMode::kNone) continue;
    SCOPED_TRACE(golden.name);
    const ControlMessageBytes message = GoldenMessage(golden.hex);
    const std::string expected = ToHex(std::span(message).subspan(kDigestOffset, kDigestSize));
    EXPECT_EQ(DigestText(golden.algorithm, message, golden.key), expected);
  }
}

TEST(MessageDigest, EmptyKeyLeavesTheMessageAloneUnderTheHash) {
  EXPECT_EQ(DigestText(SlaAuthAlgorithm::kSha256, UnsignedMessage(SlaAuthAlgorithm::kSha256), ""),
            "f8bf1696c5d0e02bf4bf85b6332b1e0801bbd0d3606c9f81d3a645a5fcc3e3fc");
}

TEST(MessageDigest, EmptyKeyIsAKeyOfLengthZeroUnderTheHmac) {
  const ControlMessageBytes message = UnsignedMessage(SlaAuthAlgorithm::kHmacSha256);
  const char* const expected = "92225597d8ef14ec05b19f5cee9a96432231250a5b811e0d885ef763fc28cd2f";
  EXPECT_EQ(DigestText(SlaAuthAlgorithm::kHmacSha256, message, ""), expected);
  EXPECT_EQ(DigestText(SlaAuthAlgorithm::kHmacSha256, message, std::string_view()), expected);
}

TEST(MessageDigest, TakesKeysLongerThanABlockAndWithZeroBytes) {
  std::string key;
  for (int i = 0; i < 30; ++i) key.append("\x0a\x00\xff", 3);
  EXPECT_EQ(DigestText(SlaAuthAlgorithm::kHmacSha256,
                       UnsignedMessage(SlaAuthAlgorithm::kHmacSha256), key),
            "d46db28ada37c11faeedfacd8f2cea21d3a36e8ae2884fc74037422a348a1441");
}

TEST(MessageDigest, DependsOnEveryByteButTheDigestField) {
  for (const SlaAuthAlgorithm algorithm :
       {SlaAuthAlgorithm::kSha256, SlaAuthAlgorithm::kHmacSha256}) {
    const ControlMessageBytes message = UnsignedMessage(algorithm);
    const std::string original = DigestText(algorithm, message, "abc");
    for (std::size_t i = 0; i < message.size(); ++i) {
      ControlMessageBytes changed = message;
      changed[i] ^= 1U;
      const bool in_digest = i >= kDigestOffset && i < kDigestOffset + kDigestSize;
      EXPECT_EQ(DigestText(algorithm, changed, "abc") == original, in_digest) << "byte " << i;
    }
  }
}

TEST(MessageDigest, GivesNothingForAnUndefinedAlgorithm) {
  const ControlMessageBytes message{};
  EXPECT_FALSE(MessageDigest(SlaAuthAlgorithm::kUndefined, message, "abc").has_value());
  EXPECT_FALSE(MessageDigest(static_cast<SlaAuthAlgorithm>(3), message, "abc").has_value());
}

TEST(HexEncode, WritesTwoLowerCaseDigitsPerByte) {
  EXPECT_EQ(HexEncode(std::vector<std::uint8_t>{0x00, 0xab}), "00ab");
  EXPECT_EQ(HexEncode(std::vector<std::uint8_t>{0x0f, 0xf0, 0x19, 0xff}), "0ff019ff");
}

TEST(HexEncode, GivesAnEmptyTextForNoBytes) {
  EXPECT_EQ(HexEncode({}), "");
}

}  // namespace
}  // namespace ipsla
