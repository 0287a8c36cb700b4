#include "sender/interface_table.h"

#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ipsla {
namespace {

using boost::asio::ip::address;
using boost::asio::ip::make_address;
using testing::ElementsAre;
using testing::Pair;

const address kFirst = make_address("192.0.2.1");
const address kSecond = make_address("192.0.2.2");
const InterfaceRecord kEth0{.flags = 0x43, .index = 2, .name = "eth0"};
const InterfaceRecord kEth1{.flags = 0x3, .index = 3, .name = "eth1"};

TEST(InterfaceTable, FindsAnAddressInItsVrfOnly) {
  InterfaceTable table;
  table.Set(kFirst, "1", kEth0);
  EXPECT_EQ(kEth0, table.Find(kFirst, "1"));
  EXPECT_EQ(std::nullopt, table.Find(kFirst, "blue"));
  EXPECT_EQ(std::nullopt, table.Find(kSecond, "1"));
}

TEST(InterfaceTable, SetReplacesTheRecordOfAnAddress) {
  InterfaceTable table;
  table.Set(kFirst, "1", kEth0);
  table.Set(kFirst, "1", kEth1);
  EXPECT_EQ(kEth1, table.Find(kFirst, "1"));
  EXPECT_THAT(table.OfVrf("1"), ElementsAre(Pair(kFirst, kEth1)));
}

TEST(InterfaceTable, EraseRemovesOneAddressAndIgnoresAnUnknownOne) {
  InterfaceTable table;
  table.Set(kFirst, "1", kEth0);
  table.Set(kFirst, "blue", kEth0);
  table.Erase(kFirst, "1", kEth0.index);
  table.Erase(kSecond, "1", kEth0.index);
  EXPECT_EQ(std::nullopt, table.Find(kFirst, "1"));
  EXPECT_EQ(kEth0, table.Find(kFirst, "blue"));
}

TEST(InterfaceTable, AddressThatMovedStaysWithItsNewInterface) {
  InterfaceTable table;
  table.Set(kFirst, "1", kEth0);
  table.Set(kFirst, "1", kEth1);
  table.Erase(kFirst, "1", kEth0.index);
  EXPECT_EQ(kEth1, table.Find(kFirst, "1"));
}

TEST(InterfaceTable, EraseVrfRemovesAllOfThatVrf) {
  InterfaceTable table;
  table.Set(kFirst, "1", kEth0);
  table.Set(kFirst, "blue", kEth0);
  table.Set(kSecond, "blue", kEth1);
  table.EraseVrf("blue");
  EXPECT_TRUE(table.OfVrf("blue").empty());
  EXPECT_EQ(kEth0, table.Find(kFirst, "1"));
}

TEST(InterfaceTable, SetFlagsReachesEveryAddressOfTheInterfaceInOneVrf) {
  InterfaceTable table;
  table.Set(kFirst, "1", kEth0);
  table.Set(kSecond, "1", kEth0);
  table.Set(kFirst, "blue", kEth0);
  table.Set(make_address("192.0.2.3"), "1", kEth1);
  table.SetFlags("1", kEth0.index, 0x2);
  EXPECT_EQ(0x2, table.Find(kFirst, "1")->flags);
  EXPECT_EQ(0x2, table.Find(kSecond, "1")->flags);
  EXPECT_EQ(kEth0.flags, table.Find(kFirst, "blue")->flags);
  EXPECT_EQ(kEth1.flags, table.Find(make_address("192.0.2.3"), "1")->flags);
}

TEST(InterfaceTable, EraseInterfaceRemovesItsAddressesInOneVrf) {
  InterfaceTable table;
  table.Set(kFirst, "1", kEth0);
  table.Set(kSecond, "1", kEth1);
  table.Set(kFirst, "blue", kEth0);
  table.EraseInterface("1", kEth0.index);
  EXPECT_EQ(std::nullopt, table.Find(kFirst, "1"));
  EXPECT_EQ(kEth1, table.Find(kSecond, "1"));
  EXPECT_EQ(kEth0, table.Find(kFirst, "blue"));
}

TEST(InterfaceTable, ListsTheAddressesOfOneVrf) {
  InterfaceTable table;
  table.Set(kSecond, "1", kEth1);
  table.Set(kFirst, "1", kEth0);
  table.Set(kFirst, "blue", kEth1);
  EXPECT_THAT(table.OfVrf("1"), ElementsAre(Pair(kFirst, kEth0), Pair(kSecond, kEth1)));
  EXPECT_TRUE(table.OfVrf("red").empty());
}

TEST(InterfaceTable, MayBeReadWhileItIsChanged) {
  InterfaceTable table;
  constexpr int kRounds = 2000;
  table.Set(kFirst, "1", kEth0);
  std::thread writer([&table] {
    for (int round = 0; round < kRounds; ++round) {
      table.Set(kSecond, "1", round % 2 == 0 ? kEth0 : kEth1);
      table.SetFlags("1", kEth1.index, round);
      table.EraseInterface("1", kEth1.index);
    }
  });
  for (int round = 0; round < kRounds; ++round) {
    EXPECT_EQ(kEth0, table.Find(kFirst, "1"));
    EXPECT_GE(table.OfVrf("1").size(), 1U);
  }
  writer.join();
  EXPECT_EQ(std::nullopt, table.Find(kSecond, "1"));
}

}  // namespace
}  // namespace ipsla
