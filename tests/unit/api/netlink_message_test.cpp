#include "api/netlink_message.h"

#include <sys/socket.h>

#include <cerrno>
#include <limits>
#include <memory>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/netlink_bytes.h"

namespace ipsla {
namespace {

using namespace test;  // NOLINT(google-build-using-namespace): the byte builders
using boost::asio::ip::make_address;
using testing::ElementsAre;
using testing::IsEmpty;

// Parses a copy in a block of exactly that size, so that a sanitizer sees every byte read too far.
NetlinkMessage Parse(const Bytes& bytes) {
  const auto exact = std::make_unique<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), exact.get());
  return ParseNetlinkMessage({exact.get(), bytes.size()});
}

TEST(NetlinkMessageTest, ReadsALinkWithItsName) {
  const NetlinkMessage message = Parse(
      LinkMessage(kNewLink, 7, 0x11043, Attribute(13, {1, 2, 3, 4, 5}) + NameAttribute("eth0")));
  EXPECT_EQ(message.event, NetlinkEvent::kLinkChanged);
  EXPECT_EQ(message.index, 7U);
  EXPECT_EQ(message.flags, 0x11043U);
  EXPECT_EQ(message.name, "eth0");
}

TEST(NetlinkMessageTest, ReadsALinkThatIsGone) {
  const NetlinkMessage message = Parse(LinkMessage(kDelLink, 7, 0, NameAttribute("eth0")));
  EXPECT_EQ(message.event, NetlinkEvent::kLinkGone);
  EXPECT_EQ(message.index, 7U);
}

TEST(NetlinkMessageTest, IgnoresAPortThatLeavesItsBridge) {
  EXPECT_EQ(Parse(LinkMessage(kDelLink, 7, 0, NameAttribute("eth0"), AF_BRIDGE)).event,
            NetlinkEvent::kIgnored);
}

TEST(NetlinkMessageTest, LinkWithoutAUsableNameHasNone) {
  EXPECT_FALSE(Parse(LinkMessage(kNewLink, 7, 1, {})).name);
  EXPECT_FALSE(Parse(LinkMessage(kNewLink, 7, 1, Attribute(3, {}))).name);
  EXPECT_FALSE(Parse(LinkMessage(kNewLink, 7, 1, Attribute(3, {0}))).name);
  EXPECT_EQ(Parse(LinkMessage(kNewLink, 7, 1, {})).event, NetlinkEvent::kLinkChanged);
}

TEST(NetlinkMessageTest, NameEndsWithItsAttribute) {
  EXPECT_EQ(Parse(LinkMessage(kNewLink, 7, 1, Attribute(3, {'e', 't', 'h'}))).name, "eth");
}

TEST(NetlinkMessageTest, ReadsLocalAddressesOnly) {
  const Bytes attributes =
      Attribute(kIfaAddress, {10, 0, 0, 9}) + Attribute(kIfaLocal, {10, 0, 0, 1});
  const NetlinkMessage added = Parse(AddressMessage(kNewAddr, AF_INET, 3, attributes));
  EXPECT_EQ(added.event, NetlinkEvent::kAddressAdded);
  EXPECT_EQ(added.index, 3U);
  EXPECT_THAT(added.addresses, ElementsAre(make_address("10.0.0.1")));
  EXPECT_EQ(Parse(AddressMessage(kDelAddr, AF_INET, 3, attributes)).event,
            NetlinkEvent::kAddressRemoved);
}

TEST(NetlinkMessageTest, ReadsIpv6WithTheScopeOfALinkLocalAddress) {
  Bytes global(16);
  global[0] = 0x20;
  global[1] = 0x01;
  global[15] = 1;
  Bytes local(16);
  local[0] = 0xfe;
  local[1] = 0x80;
  local[15] = 1;
  const auto message = Parse(AddressMessage(
      kNewAddr, AF_INET6, 3, Attribute(kIfaLocal, global) + Attribute(kIfaLocal, local)));
  ASSERT_EQ(message.addresses.size(), 2U);
  EXPECT_EQ(message.addresses[0], make_address("2001::1"));
  EXPECT_EQ(message.addresses[1].to_v6().scope_id(), 3U);
}

TEST(NetlinkMessageTest, LeavesOutUnspecifiedShortAndForeignAddresses) {
  EXPECT_THAT(
      Parse(AddressMessage(kNewAddr, AF_INET, 3, Attribute(kIfaLocal, {0, 0, 0, 0}))).addresses,
      IsEmpty());
  EXPECT_THAT(
      Parse(AddressMessage(kNewAddr, AF_INET, 3, Attribute(kIfaLocal, {10, 0, 0}))).addresses,
      IsEmpty());
  EXPECT_THAT(
      Parse(AddressMessage(kNewAddr, AF_INET6, 3, Attribute(kIfaLocal, {10, 0, 0, 1}))).addresses,
      IsEmpty());
  EXPECT_THAT(Parse(AddressMessage(kNewAddr, 77, 3, Attribute(kIfaLocal, Bytes(16, 1)))).addresses,
              IsEmpty());
}

TEST(NetlinkMessageTest, NegatesTheErrorCode) {
  EXPECT_EQ(Parse(ErrorMessage(-EPERM)).event, NetlinkEvent::kError);
  EXPECT_EQ(Parse(ErrorMessage(-EPERM)).error, EPERM);
  EXPECT_EQ(Parse(ErrorMessage(0)).error, 0);
  EXPECT_EQ(Parse(ErrorMessage(std::numeric_limits<std::int32_t>::min())).event,
            NetlinkEvent::kError);
}

TEST(NetlinkMessageTest, ActsOnlyOnTheFirstMessageOfADatagram) {
  const Bytes first = AddressMessage(kNewAddr, AF_INET, 3, Attribute(kIfaLocal, {10, 0, 0, 1}));
  const Bytes second = AddressMessage(kNewAddr, AF_INET, 3, Attribute(kIfaLocal, {10, 0, 0, 2}));
  EXPECT_THAT(Parse(first + second).addresses, ElementsAre(make_address("10.0.0.1")));
  EXPECT_EQ(Parse(Message(99, {}) + second).event, NetlinkEvent::kIgnored);
}

TEST(NetlinkMessageTest, IgnoresOtherTypes) {
  for (const int other : {0, 1, 3, 15, 18, 19, 22, 24, 0xFFFF}) {
    const auto type = static_cast<std::uint16_t>(other);
    EXPECT_EQ(Parse(Message(type, Bytes(64, 1))).event, NetlinkEvent::kIgnored) << type;
  }
}

TEST(NetlinkMessageTest, MessageCutShortIsLost) {
  const Bytes whole = LinkMessage(kNewLink, 7, 1, NameAttribute("eth0"));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(Parse(cut).event, size < 16 ? NetlinkEvent::kIgnored : NetlinkEvent::kTruncated)
        << size;
  }
}

TEST(NetlinkMessageTest, BodyTooShortForItsTypeIsIgnored) {
  struct Case {
    std::uint16_t type;
    std::size_t needed;
  };
  for (const auto& [type, needed] :
       {Case{2, 4}, Case{kNewLink, 16}, Case{kDelLink, 16}, Case{kNewAddr, 8}, Case{kDelAddr, 8}}) {
    EXPECT_EQ(Parse(Message(type, Bytes(needed - 1, 1))).event, NetlinkEvent::kIgnored) << type;
    EXPECT_NE(Parse(Message(type, Bytes(needed, 1))).event, NetlinkEvent::kIgnored) << type;
  }
}

TEST(NetlinkMessageTest, LengthBelowTheHeaderIsIgnored) {
  for (std::uint8_t length = 0; length < 16; ++length) {
    Bytes bytes = LinkMessage(kNewLink, 7, 1, NameAttribute("eth0"));
    std::fill_n(bytes.begin(), 4, std::uint8_t{0});
    Bytes field;
    Append(&field, std::uint32_t{length});
    std::copy(field.begin(), field.end(), bytes.begin());
    EXPECT_EQ(Parse(bytes).event, NetlinkEvent::kIgnored) << int{length};
  }
}

// Each row: the length that the second attribute claims, and whether it is still read.
TEST(NetlinkMessageTest, AttributeThatLiesAboutItsLengthEndsTheWalk) {
  struct Case {
    std::uint16_t claimed;
    bool read;
  };
  for (const auto& [claimed, read] : {Case{0, false}, Case{3, false}, Case{4, false}, Case{8, true},
                                      Case{9, false}, Case{0xFFFF, false}}) {
    Bytes liar;
    Append(&liar, claimed);
    Append(&liar, kIfaLocal);
    liar = liar + Bytes{10, 0, 0, 2};
    const auto message =
        Parse(AddressMessage(kNewAddr, AF_INET, 3, Attribute(kIfaLocal, {10, 0, 0, 1}) + liar));
    EXPECT_EQ(message.addresses.size(), read ? 2U : 1U) << claimed;
  }
}

TEST(NetlinkMessageTest, AttributesOfOddLengthAreAligned) {
  const auto message = Parse(LinkMessage(
      kNewLink, 7, 1,
      Attribute(4, {1}) + Attribute(5, {1, 2}) + Attribute(6, {1, 2, 3}) + NameAttribute("eth0")));
  EXPECT_EQ(message.name, "eth0");
}

// Changed bytes, any length: nothing is read out of bounds (the sanitizer build tells) and the
// parser comes back.
TEST(NetlinkMessageTest, SurvivesRandomDamage) {
  std::mt19937 random(20240702);  // NOLINT(cert-msc51-cpp): repeatable on purpose
  const Bytes seeds[] = {
      LinkMessage(kNewLink, 7, 1, NameAttribute("eth0") + Attribute(5, {1, 2, 3})),
      AddressMessage(kNewAddr, AF_INET, 3, Attribute(kIfaLocal, {10, 0, 0, 1})),
      AddressMessage(kDelAddr, AF_INET6, 3, Attribute(kIfaLocal, Bytes(16, 7))), ErrorMessage(-1)};
  std::size_t acted_on = 0;
  for (int round = 0; round < 20000; ++round) {
    Bytes bytes = seeds[random() % std::size(seeds)];
    for (auto change = random() % 4; change > 0; --change) {
      bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
    }
    bytes.resize(random() % 5 == 0 ? random() % bytes.size() : bytes.size());
    if (Parse(bytes).event != NetlinkEvent::kIgnored) ++acted_on;
  }
  EXPECT_GT(acted_on, 1000U);
}

}  // namespace
}  // namespace ipsla
