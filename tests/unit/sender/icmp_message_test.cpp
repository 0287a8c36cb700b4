#include "sender/icmp_message.h"

#include <array>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace ipsla {
namespace {

// The worked example of RFC 1071, section 3: 0001 f203 f4f5 f6f7 sums to ddf2 with carries folded
// in.
TEST(IcmpMessage, ChecksumIsTheComplementOfTheFoldedSum) {
  const std::array<std::uint8_t, 8> bytes{0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
  EXPECT_EQ(InternetChecksum(bytes), static_cast<std::uint16_t>(~0xddf2));
  EXPECT_EQ(InternetChecksum({}), 0xFFFF);
  const std::array<std::uint8_t, 3> odd{0x12, 0x34, 0x56};
  EXPECT_EQ(InternetChecksum(odd), static_cast<std::uint16_t>(~(0x1234 + 0x5600)));
}

TEST(IcmpMessage, EchoRequestBytes) {
  std::array<std::uint8_t, 64> buffer{};
  EncodeIcmpHeader(kIcmpEchoRequest, 0xABCD, 0x0102, buffer);
  buffer[8] = 0x5A;
  SealIcmpMessage(9, buffer);
  // 0800 + abcd + 0102 + 5a00 = 10ecf -> 0ed0 -> f12f... folded: 0ecf + 1 = 0ed0, complement f12f.
  const std::vector<std::uint8_t> expected{0x08, 0x00, 0xf1, 0x2f, 0xab, 0xcd, 0x01, 0x02, 0x5a};
  EXPECT_EQ(std::vector<std::uint8_t>(buffer.begin(), buffer.begin() + 9), expected);
  EXPECT_EQ(InternetChecksum(std::span(buffer).first(9)), 0) << "a sealed message sums to zero";
}

TEST(IcmpMessage, TimestampRequestBytes) {
  std::array<std::uint8_t, 64> buffer{};
  EncodeIcmpHeader(kIcmpTimestampRequest, 0x0001, 0x0002, buffer);
  EncodeOriginateTimestamp(86399999, buffer);
  const std::vector<std::uint8_t> expected{0x0d, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00,
                                           0x02, 0x05, 0x26, 0x5b, 0xff, 0x00, 0x00,
                                           0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(std::vector<std::uint8_t>(buffer.begin(), buffer.begin() + 20), expected);
}

// The bytes behind what is sent are zero, so a checksum over the stored size is that of the sent
// bytes.
TEST(IcmpMessage, ZerosBehindTheMessageDoNotChangeTheChecksum) {
  std::array<std::uint8_t, 64> longer{};
  EncodeIcmpHeader(kIcmpEchoRequest, 0x1111, 7, longer);
  std::array<std::uint8_t, 64> shorter = longer;
  SealIcmpMessage(8, shorter);
  SealIcmpMessage(28, longer);
  EXPECT_EQ(shorter, longer);
}

TEST(IcmpMessage, ReplyIsReadBehindTheIpHeaderAtEveryLength) {
  std::vector<std::uint8_t> packet(40, 0xEE);
  const std::vector<std::uint8_t> icmp{14, 0, 0, 0, 0xAB, 0xCD, 0x00, 0x05, 0, 0,
                                       0,  1, 0, 0, 0,    2,    0,    0,    0, 3};
  std::copy(icmp.begin(), icmp.end(), packet.begin() + 20);
  const IcmpReply whole = DecodeIcmpReply(packet);
  EXPECT_EQ(whole.type, 14);
  EXPECT_EQ(whole.code, 0);
  EXPECT_EQ(whole.identifier, 0xABCD);
  EXPECT_EQ(whole.sequence, 5);
  EXPECT_EQ(whole.receive_timestamp, 2U);
  EXPECT_EQ(whole.transmit_timestamp, 3U);
  for (std::size_t length = 0; length < packet.size(); ++length) {
    // A copy of exactly this size, so that a read beyond it would be seen.
    const std::vector<std::uint8_t> cut(packet.begin(),
                                        packet.begin() + static_cast<std::ptrdiff_t>(length));
    const IcmpReply reply = DecodeIcmpReply(cut);
    EXPECT_EQ(reply.type, length > 20 ? 14 : 0);
    EXPECT_EQ(reply.identifier, length >= 26 ? 0xABCD : length == 25 ? 0xAB00 : 0);
    EXPECT_EQ(reply.sequence, length >= 28 ? 5 : 0);
    EXPECT_EQ(reply.transmit_timestamp, 0U);
  }
}

}  // namespace
}  // namespace ipsla
