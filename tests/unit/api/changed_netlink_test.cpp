// Every truncation and every single-byte change of the kernel's messages about links and addresses.

#include <gtest/gtest.h>

#include "api/netlink_message.h"
#include "support/mutations.h"
#include "support/netlink_bytes.h"

namespace ipsla {
namespace {

using test::Bytes;
using test::operator+;

const std::vector<Bytes>& WholeNetlinkMessages() {
  static const std::vector<Bytes> kMessages{
      test::LinkMessage(test::kNewLink, 3, 0x10043, test::NameAttribute("eth0")),
      test::LinkMessage(test::kDelLink, 3, 0, test::NameAttribute("eth0")),
      test::AddressMessage(test::kNewAddr, AF_INET, 3,
                           test::Attribute(test::kIfaAddress, {192, 0, 2, 9}) +
                               test::Attribute(test::kIfaLocal, {192, 0, 2, 1})),
      test::AddressMessage(test::kDelAddr, AF_INET, 3,
                           test::Attribute(test::kIfaLocal, {192, 0, 2, 1})),
      test::ErrorMessage(-22),
  };
  return kMessages;
}

TEST(ChangedNetlinkMessageTest, EveryTruncationIsSaidToBeOne) {
  for (const Bytes& whole : WholeNetlinkMessages()) {
    test::ForEachTruncation(whole, [](const Bytes& bytes) {
      const NetlinkMessage message = ParseNetlinkMessage(bytes);
      ASSERT_EQ(message.event,
                bytes.size() < 16 ? NetlinkEvent::kIgnored : NetlinkEvent::kTruncated);
      ASSERT_TRUE(message.addresses.empty());
    });
  }
}

// The length's own bytes (0 to 3) apart, what a byte does not concern is read as before.
TEST(ChangedNetlinkMessageTest, IndexAndAddressComeFromTheirBytesOnly) {
  const Bytes& whole = WholeNetlinkMessages()[2];
  const NetlinkMessage usual = ParseNetlinkMessage(whole);
  ASSERT_EQ(usual.addresses.size(), 1U);
  test::ForEachChange(whole, [&](const Bytes& bytes, std::size_t offset) {
    const NetlinkMessage message = ParseNetlinkMessage(bytes);
    for (const auto& address : message.addresses) ASSERT_FALSE(address.is_unspecified());
    const bool is_counted = offset >= 6 && offset < 16;  // flags, number, sender: not looked at
    const bool is_other_address = offset >= 28 && offset < 32;  // the peer's
    if (is_counted || is_other_address) {
      ASSERT_EQ(message.index, usual.index);
      ASSERT_EQ(message.addresses, usual.addresses);
    }
  });
}

TEST(ChangedNetlinkMessageTest, EveryChangeOfTheOthersIsRead) {
  for (const Bytes& whole : WholeNetlinkMessages()) {
    test::ForEachChange(whole, [](const Bytes& bytes, std::size_t) {
      const NetlinkMessage message = ParseNetlinkMessage(bytes);
      ASSERT_LE(message.addresses.size(), 2U);
      ASSERT_TRUE(!message.name || message.name->size() <= bytes.size());
    });
  }
}

}  // namespace
}  // namespace ipsla
