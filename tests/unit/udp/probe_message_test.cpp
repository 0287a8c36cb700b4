#include "udp/probe_message.h"

#include <bit>
#include <cstring>

#include <gtest/gtest.h>

#include "support/bytes.h"

namespace ipsla {
namespace {

using test::FromHex;
using test::ToHex;

constexpr SlaTestType kUdpTypes[] = {SlaTestType::kUdpEcho, SlaTestType::kUdpJitter,
                                     SlaTestType::kUdpJitterNtp};

std::string Zeros(std::size_t bytes) {
  return std::string(bytes * 2, '0');
}

std::vector<std::uint8_t> CountingBytes(std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i + 1);
  return bytes;
}

TEST(ProbeHeaderSize, IsFixedPerType) {
  EXPECT_EQ(ProbeHeaderSize(SlaTestType::kUdpEcho), 4U);
  EXPECT_EQ(ProbeHeaderSize(SlaTestType::kUdpJitter), 28U);
  EXPECT_EQ(ProbeHeaderSize(SlaTestType::kUdpJitterNtp), 56U);
  EXPECT_EQ(ProbeHeaderSize(SlaTestType::kIcmpEcho), 0U);
  EXPECT_EQ(ProbeHeaderSize(SlaTestType::kIcmpJitter), 0U);
  EXPECT_EQ(ProbeHeaderSize(SlaTestType::kNone), 0U);
}

TEST(EncodeProbe, GivesTheGoldenBytesOfEveryType) {
  const std::pair<SlaTestType, std::string> rows[] = {
      {SlaTestType::kUdpEcho, "00010304eeeeee"},
      {SlaTestType::kUdpJitter, "0002" + Zeros(18) + "01020304" + Zeros(4) + "eeeeee"},
      {SlaTestType::kUdpJitterNtp, "0003" + Zeros(18) + "01020304" + Zeros(32) + "eeeeee"},
  };
  for (const auto& [type, expected] : rows) {
    std::vector<std::uint8_t> probe(ProbeHeaderSize(type), 0);
    probe.insert(probe.end(), 3, 0xee);  // padding stays
    EncodeProbe(type, 0x01020304, probe);
    EXPECT_EQ(ToHex(probe), expected);
  }
}

TEST(EncodeProbe, WritesNothingBehindAShortBuffer) {
  for (const SlaTestType type : kUdpTypes) {
    for (std::size_t size = 0; size < ProbeHeaderSize(type); ++size) {
      std::vector<std::uint8_t> memory(64, 0xee);
      EncodeProbe(type, 0x01020304, std::span(memory).first(size));
      EXPECT_EQ(ToHex(std::span(memory).subspan(size)),
                ToHex(std::vector<std::uint8_t>(64 - size, 0xee)))
          << size;
    }
  }
}

TEST(ProbeSequence, IsSixteenBitsForEchoAndThirtyTwoForJitter) {
  for (const SlaTestType type : kUdpTypes) {
    std::vector<std::uint8_t> probe(64, 0);
    EncodeProbe(type, 0x00018002, probe);
    EXPECT_EQ(ProbeSequence(type, probe), type == SlaTestType::kUdpEcho ? 0x8002U : 0x18002U);
  }
}

TEST(ProbeSequence, ReadsBytesThatWereNotReceivedAsZero) {
  const std::vector<std::uint8_t> bytes = CountingBytes(64);
  const auto sequence = [&bytes](SlaTestType type, std::size_t size) {
    return ProbeSequence(type, std::span(bytes).first(size));
  };
  EXPECT_EQ(sequence(SlaTestType::kUdpEcho, 2), 0U);
  EXPECT_EQ(sequence(SlaTestType::kUdpEcho, 3), 0x0300U);
  EXPECT_EQ(sequence(SlaTestType::kUdpEcho, 4), 0x0304U);
  EXPECT_EQ(sequence(SlaTestType::kUdpJitter, 20), 0U);
  EXPECT_EQ(sequence(SlaTestType::kUdpJitter, 21), 0x15000000U);
  EXPECT_EQ(sequence(SlaTestType::kUdpJitter, 23), 0x15161700U);
  EXPECT_EQ(sequence(SlaTestType::kUdpJitterNtp, 24), 0x15161718U);
}

TEST(DecodeReply, ReadsEveryFieldAtItsOffset) {
  const std::vector<std::uint8_t> bytes = CountingBytes(kReplyReadSize);
  const ProbeReply reply = DecodeReply(bytes);
  EXPECT_EQ(reply.type, 0x0102);
  EXPECT_EQ(reply.sequence, 0x15161718U);
  EXPECT_EQ(reply.counter, 0x191a1b1cU);
  EXPECT_EQ(reply.stamp, 0x0d0e0f1011121314U);
  EXPECT_EQ(reply.ntp_value, 0x3738);
  // The NTP fields keep the bytes as they stand.
  EXPECT_EQ(std::memcmp(&reply.ntp_first, &bytes[12], 8), 0);
  EXPECT_EQ(std::memcmp(&reply.ntp_second, &bytes[20], 8), 0);
}

TEST(DecodeReply, ReadsBytesBeyondTheBufferAsZeroAtEveryLength) {
  const std::vector<std::uint8_t> whole = CountingBytes(kReplyReadSize);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    std::vector<std::uint8_t> padded(whole.begin(),
                                     whole.begin() + static_cast<std::ptrdiff_t>(size));
    const std::vector<std::uint8_t> received = padded;
    padded.resize(kReplyReadSize, 0);
    const ProbeReply reply = DecodeReply(received);
    const ProbeReply expected = DecodeReply(padded);
    EXPECT_EQ(reply.type, expected.type) << size;
    EXPECT_EQ(reply.sequence, expected.sequence) << size;
    EXPECT_EQ(reply.counter, expected.counter) << size;
    EXPECT_EQ(reply.stamp, expected.stamp) << size;
    EXPECT_EQ(reply.ntp_first, expected.ntp_first) << size;
    EXPECT_EQ(reply.ntp_second, expected.ntp_second) << size;
    EXPECT_EQ(reply.ntp_value, expected.ntp_value) << size;
  }
}

TEST(DecodeReply, TakesTheEchoSequenceFromOffset20AndNotFromOffset2) {
  std::vector<std::uint8_t> reply(64, 0);
  EncodeProbe(SlaTestType::kUdpEcho, 3, reply);
  reply[23] = 9;
  EXPECT_EQ(DecodeReply(reply).sequence, 9U);
}

constexpr ReplyFields kFields = {.sequence = 0x01020304,
                                 .counter = 0x11121314,
                                 .receive_stamp = 0x2122232425262728,
                                 .ntp_receive = 0x3132333435363738};

TEST(EncodeReply, GivesTheGoldenBytesOfEveryType) {
  const std::pair<SlaTestType, std::string> rows[] = {
      {SlaTestType::kUdpEcho, "0001ffff" + Zeros(16) + "0102030411121314" + Zeros(30)},
      {SlaTestType::kUdpJitter,
       "0002ffff" + Zeros(8) + "2122232425262728" + "0102030411121314" + Zeros(30)},
      {SlaTestType::kUdpJitterNtp, "0003ffff" + Zeros(8) + "3132333435363738" + "0102030411121314" +
                                       Zeros(26) + "1314" + Zeros(2)},
  };
  for (const auto& [type, expected] : rows) {
    std::vector<std::uint8_t> probe(58, 0);
    probe[0] = 0xff;  // overwritten
    probe[2] = probe[3] = 0xff;
    EncodeReply(type, kFields, probe);
    EXPECT_EQ(ToHex(probe), expected);
  }
}

TEST(EncodeReply, LeavesOutFieldsThatDoNotFit) {
  for (const SlaTestType type : kUdpTypes) {
    std::vector<std::uint8_t> whole(58, 0xee);
    EncodeReply(type, kFields, whole);
    for (std::size_t size = 0; size < whole.size(); ++size) {
      std::vector<std::uint8_t> probe(size, 0xee);
      EncodeReply(type, kFields, probe);
      ASSERT_EQ(probe.size(), size);
      const bool has_counter = size >= 28;
      const bool has_sequence = size >= 24;
      if (size > 20) {
        EXPECT_EQ(probe[20], has_sequence ? 0x01 : 0xee) << size;
      }
      if (size > 24) {
        EXPECT_EQ(probe[24], has_counter ? 0x11 : 0xee) << size;
      }
      if (size > 54) {
        EXPECT_EQ(probe[54], size >= 56 ? whole[54] : 0xee) << size;
      }
    }
  }
}

TEST(EncodeReply, IsWhatDecodeReplyReads) {
  for (const SlaTestType type : kUdpTypes) {
    std::vector<std::uint8_t> probe(64, 0);
    EncodeProbe(type, kFields.sequence, probe);
    EncodeReply(type, kFields, probe);
    const ProbeReply reply = DecodeReply(probe);
    EXPECT_EQ(reply.type, static_cast<std::uint16_t>(type));
    EXPECT_EQ(reply.sequence, kFields.sequence);
    EXPECT_EQ(reply.counter, kFields.counter);
    if (type == SlaTestType::kUdpJitter) {
      EXPECT_EQ(reply.stamp, kFields.receive_stamp);
    }
    if (type == SlaTestType::kUdpJitterNtp) {
      EXPECT_EQ(reply.stamp, kFields.ntp_receive);
      EXPECT_EQ(reply.ntp_value, 0x1314);
    }
  }
}

}  // namespace
}  // namespace ipsla
