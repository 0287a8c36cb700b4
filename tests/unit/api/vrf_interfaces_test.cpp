// What becomes of messages and listings: the table's content and what the tests are told. The
// watcher's tests show the same against the kernel.

#include "api/vrf_interfaces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/recording_observer.h"

namespace ipsla {
namespace {

using boost::asio::ip::make_address;
using testing::ElementsAre;
using testing::IsEmpty;

const boost::asio::ip::address kFirst = make_address("10.9.0.1");
const boost::asio::ip::address kSecond = make_address("10.9.0.2");

class VrfInterfacesTest : public testing::Test {
 protected:
  VrfInterfacesTest() {
    interfaces.Begin(listing);
    EXPECT_THAT(observer.calls, IsEmpty());
  }

  static NetlinkMessage LinkNamed(std::uint32_t index, const std::string& name) {
    NetlinkMessage message;
    message.event = NetlinkEvent::kLinkChanged;
    message.index = index;
    message.flags = 0x43;
    message.name = name;
    return message;
  }

  static NetlinkMessage AddressEvent(NetlinkEvent event, std::uint32_t index) {
    NetlinkMessage message;
    message.event = event;
    message.index = index;
    message.addresses = {kFirst};
    return message;
  }

  const InterfaceListing listing{.addresses = {{kFirst, {.flags = 0x43, .index = 5, .name = "a"}}},
                                 .holders = {{kFirst, {{5, {0x43, 5, "a"}}}}},
                                 .links = {{5, "a"}, {6, "b"}}};
  InterfaceTable table;
  test::RecordingObserver observer;
  VrfInterfaces interfaces{"red", table, observer};
};

TEST_F(VrfInterfacesTest, NameThatStaysIsToldAsItIs) {
  interfaces.Apply(LinkNamed(5, "a"));
  EXPECT_THAT(observer.calls, ElementsAre("link 5 a"));
}

TEST_F(VrfInterfacesTest, RenamedInterfaceTakesItsAddressesAlong) {
  interfaces.Apply(LinkNamed(5, "c"));
  EXPECT_EQ(table.Find(kFirst, "red")->name, "c");
  EXPECT_THAT(observer.calls, ElementsAre("address 5 0.0.0.0 10.9.0.1", "link 5 gone", "link 5 c",
                                          "address 5 10.9.0.1 0.0.0.0"));
}

TEST_F(VrfInterfacesTest, ExchangedNamesAreTwoRenamings) {
  interfaces.Apply(LinkNamed(5, "passing"));
  interfaces.Apply(LinkNamed(6, "a"));
  observer.calls.clear();
  interfaces.Apply(LinkNamed(5, "b"));
  EXPECT_EQ(table.Find(kFirst, "red")->name, "b");
  EXPECT_THAT(observer.calls, ElementsAre("address 5 0.0.0.0 10.9.0.1", "link 5 gone", "link 5 b",
                                          "address 5 10.9.0.1 0.0.0.0"));
}

TEST_F(VrfInterfacesTest, NumberThatIsUsedAgainIsAnotherLink) {
  NetlinkMessage gone;
  gone.event = NetlinkEvent::kLinkGone;
  gone.index = 5;
  interfaces.Apply(gone);
  EXPECT_FALSE(table.Find(kFirst, "red"));
  observer.calls.clear();
  interfaces.Apply(LinkNamed(5, "c"));
  EXPECT_THAT(observer.calls, ElementsAre("link 5 c"));
}

TEST_F(VrfInterfacesTest, AddressThatTwoHaveIsTheLastOnesUntilThatLosesIt) {
  interfaces.Apply(AddressEvent(NetlinkEvent::kAddressAdded, 6));
  EXPECT_EQ(table.Find(kFirst, "red")->index, 6);
  interfaces.Apply(AddressEvent(NetlinkEvent::kAddressRemoved, 6));
  ASSERT_TRUE(table.Find(kFirst, "red"));
  EXPECT_EQ(table.Find(kFirst, "red")->index, 5);
}

TEST_F(VrfInterfacesTest, AddressThatTwoHaveGoesOverToTheOther) {
  interfaces.Apply(AddressEvent(NetlinkEvent::kAddressAdded, 6));
  observer.calls.clear();
  interfaces.Apply(AddressEvent(NetlinkEvent::kAddressRemoved, 5));
  ASSERT_TRUE(table.Find(kFirst, "red"));
  EXPECT_EQ(table.Find(kFirst, "red")->index, 6);
  EXPECT_THAT(observer.calls, ElementsAre("address 5 0.0.0.0 10.9.0.1"));
  interfaces.Apply(AddressEvent(NetlinkEvent::kAddressAdded, 5));
  NetlinkMessage gone;
  gone.event = NetlinkEvent::kLinkGone;
  gone.index = 6;
  interfaces.Apply(gone);
  ASSERT_TRUE(table.Find(kFirst, "red"));
  EXPECT_EQ(table.Find(kFirst, "red")->index, 5);
  interfaces.Apply(AddressEvent(NetlinkEvent::kAddressRemoved, 5));
  EXPECT_FALSE(table.Find(kFirst, "red"));
}

// The listing names another one of the two.
TEST_F(VrfInterfacesTest, ComparingLeavesAnAddressWhereItIs) {
  InterfaceListing now = listing;
  now.addresses[kFirst] = {.flags = 0x43, .index = 6, .name = "b"};
  now.holders[kFirst] = {{5, {0x3, 5, "a"}}, {6, {0x43, 6, "b"}}};
  interfaces.Compare(now);
  EXPECT_EQ(*table.Find(kFirst, "red"), (InterfaceRecord{0x3, 5, "a"}));
  EXPECT_THAT(observer.calls, ElementsAre("link 5 a", "link 6 b"));
}

// There is no namespace "red" to ask in.
TEST_F(VrfInterfacesTest, IsUnsureOfWhatTheKernelDidNotTell) {
  EXPECT_FALSE(interfaces.IsUnsure());
  interfaces.Apply(AddressEvent(NetlinkEvent::kAddressAdded, 6));
  EXPECT_TRUE(interfaces.IsUnsure());
  interfaces.Compare(listing);
  EXPECT_FALSE(interfaces.IsUnsure());
}

TEST_F(VrfInterfacesTest, ComparingTellsWhatDiffersOnly) {
  InterfaceListing now = listing;
  now.addresses[kSecond] = {.flags = 0x43, .index = 6, .name = "b"};
  interfaces.Compare(now);
  EXPECT_EQ(table.Find(kSecond, "red")->name, "b");
  EXPECT_THAT(observer.calls, ElementsAre("link 5 a", "link 6 b", "address 6 10.9.0.2 0.0.0.0"));
}

TEST_F(VrfInterfacesTest, ComparingSeesThatAnAddressMoved) {
  InterfaceListing now = listing;
  now.addresses[kFirst] = {.flags = 0x43, .index = 6, .name = "b"};
  now.holders[kFirst] = {{6, now.addresses[kFirst]}};
  interfaces.Compare(now);
  EXPECT_EQ(table.Find(kFirst, "red")->index, 6);
  EXPECT_THAT(observer.calls, ElementsAre("address 5 0.0.0.0 10.9.0.1", "link 5 a", "link 6 b",
                                          "address 6 10.9.0.1 0.0.0.0"));
}

TEST_F(VrfInterfacesTest, ComparingSeesAnotherName) {
  InterfaceListing now = listing;
  now.addresses[kFirst].name = "c";
  now.holders[kFirst][5].name = "c";
  now.links[5] = "c";
  interfaces.Compare(now);
  EXPECT_EQ(table.Find(kFirst, "red")->name, "c");
  EXPECT_THAT(observer.calls, ElementsAre("address 5 0.0.0.0 10.9.0.1", "link 5 gone", "link 5 c",
                                          "link 6 b", "address 5 10.9.0.1 0.0.0.0"));
}

TEST_F(VrfInterfacesTest, ReplacingTellsEverythingEvenWhereItIsTheSame) {
  interfaces.Replace(listing);
  EXPECT_TRUE(table.Find(kFirst, "red"));
  EXPECT_THAT(observer.calls,
              ElementsAre("address 5 0.0.0.0 10.9.0.1", "link 5 gone", "link 6 gone", "link 5 a",
                          "link 6 b", "address 5 10.9.0.1 0.0.0.0"));
}

TEST_F(VrfInterfacesTest, OtherVrfsAreLeftAlone) {
  table.Set(kFirst, "blue", {.flags = 0x43, .index = 5, .name = "a"});
  interfaces.Apply(LinkNamed(5, "c"));
  interfaces.Replace({});
  interfaces.Forget();
  EXPECT_EQ(table.Find(kFirst, "blue")->name, "a");
  EXPECT_THAT(observer.vrf_keys, ElementsAre("red"));
}

}  // namespace
}  // namespace ipsla
