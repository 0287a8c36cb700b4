// Every truncation and every single-byte change of an ICMP reply as a raw socket delivers it.

#include <gtest/gtest.h>

#include "sender/icmp_message.h"
#include "support/mutations.h"

namespace ipsla {
namespace {

using test::BigEndianAt;
using PacketBytes = std::vector<std::uint8_t>;

PacketBytes TimestampReply() {
  PacketBytes packet(60);
  for (std::size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<std::uint8_t>(77 * i + 1);
  return packet;
}

void ExpectIcmpFields(const PacketBytes& bytes) {
  const IcmpReply reply = DecodeIcmpReply(bytes);
  ASSERT_EQ(reply.type, BigEndianAt(bytes, 20, 1));
  ASSERT_EQ(reply.code, BigEndianAt(bytes, 21, 1));
  ASSERT_EQ(reply.identifier, BigEndianAt(bytes, 24, 2));
  ASSERT_EQ(reply.sequence, BigEndianAt(bytes, 26, 2));
  ASSERT_EQ(reply.originate_timestamp, BigEndianAt(bytes, 28, 4));
  ASSERT_EQ(reply.receive_timestamp, BigEndianAt(bytes, 32, 4));
  ASSERT_EQ(reply.transmit_timestamp, BigEndianAt(bytes, 36, 4));
}

TEST(ChangedIcmpReplyTest, TruncatedFieldsReadAsZero) {
  test::ForEachTruncation(TimestampReply(), ExpectIcmpFields);
}

TEST(ChangedIcmpReplyTest, EachByteConcernsItsFieldOnly) {
  test::ForEachChange(TimestampReply(),
                      [](const PacketBytes& bytes, std::size_t) { ExpectIcmpFields(bytes); });
}

}  // namespace
}  // namespace ipsla
