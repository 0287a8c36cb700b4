// The interface watcher: what it watches and what it makes of messages.

#include <net/if.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "support/watcher_fixture.h"

namespace ipsla {
namespace {

using boost::asio::ip::make_address;
using test::Attribute;
using test::Bytes;
using test::kIfaLocal;
using test::RoutingSocketsIn;
using test::RunIp;
using test::VrfFixture;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

using NetlinkWatcherTest = test::WatcherFixture;

TEST_F(NetlinkWatcherTest, ListsTheAddressesThatAreThere) {
  watcher.CreateNetlinkSocketInVrf("");
  const auto loopback = table->Find(make_address("127.0.0.1"), "1");
  ASSERT_TRUE(loopback);
  EXPECT_EQ(loopback->name, "lo");
  EXPECT_EQ(loopback->index, 1);
  EXPECT_NE(loopback->flags & IFF_RUNNING, 0);
  EXPECT_THAT(observer.calls, IsEmpty());
}

TEST_F(NetlinkWatcherTest, FollowsAddressesAndLinks) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  watcher.CreateNetlinkSocketInVrf("");
  vrfs.AddLink("red", {"near0", "10.9.0.1/24"}, {"far0", "10.9.0.2/24"});
  ASSERT_TRUE(RunUntilFound("10.9.0.1", "1"));
  EXPECT_TRUE(RunUntil([&] {
    const auto record = table->Find(make_address("10.9.0.1"), "1");
    return record && (record->flags & IFF_RUNNING) != 0;
  })) << "the flags follow the link";
  EXPECT_EQ(table->Find(make_address("10.9.0.1"), "1")->name, "near0");
  const std::string index = IndexOf("near0");
  EXPECT_THAT(observer.calls, Contains("link " + index + " near0"));
  EXPECT_THAT(observer.calls, Contains("address " + index + " 10.9.0.1 0.0.0.0"));

  observer.calls.clear();
  RunIp({"address", "delete", "10.9.0.1/24", "dev", "near0"});
  ASSERT_TRUE(RunUntilGone("10.9.0.1", "1"));
  EXPECT_THAT(observer.calls, Contains("address " + index + " 0.0.0.0 10.9.0.1"));
}

TEST_F(NetlinkWatcherTest, TakesTheWordOfTheKernelAlone) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  NetlinkWatcher strict(service, table, observer);
  strict.CreateNetlinkSocketInVrf("");
  Inject("", test::LinkMessage(16, 4242, 0, test::NameAttribute("forged")));
  Inject("", test::AddressMessage(21, AF_INET, 1, Attribute(kIfaLocal, {127, 0, 0, 1})));
  vrfs.AddLink("red", {"near0", "10.9.0.1/24"}, {"far0", "10.9.0.2/24"});
  ASSERT_TRUE(RunUntilFound("10.9.0.1", "1")) << "what comes behind them is taken";
  EXPECT_TRUE(table->Find(make_address("127.0.0.1"), "1"));
  EXPECT_THAT(observer.calls, Not(Contains("link 4242 forged")));
}

TEST_F(NetlinkWatcherTest, LinkThatGoesDownLosesItsRunningFlag) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddLink("red", {"near0", "10.9.0.1/24"}, {"far0", ""});
  watcher.CreateNetlinkSocketInVrf("");
  RunIp({"link", "set", "near0", "down"});
  EXPECT_TRUE(RunUntil([&] {
    const auto record = table->Find(make_address("10.9.0.1"), "1");
    return record && (record->flags & IFF_RUNNING) == 0;
  }));
}

TEST_F(NetlinkWatcherTest, DeletingALinkRemovesAllItsAddressesOfThatVrf) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddLink("red", {"near0", "10.9.0.1/24"}, {"far0", "10.9.0.2/24"});
  watcher.CreateNetlinkSocketInVrf("");
  watcher.CreateNetlinkSocketInVrf("red");
  ASSERT_TRUE(table->Find(make_address("10.9.0.2"), "red"));
  const std::string index = IndexInVrf("red", "far0");
  // The same number in another VRF is another link.
  table->Set(make_address("192.0.2.1"), "1", {0, std::stoi(index), "other"});

  // As the kernel says it when the addresses themselves were not reported.
  InjectAndHandle("red", test::LinkMessage(17, std::stoi(index), 0, test::NameAttribute("far0")));
  EXPECT_FALSE(table->Find(make_address("10.9.0.2"), "red"));
  EXPECT_TRUE(table->Find(make_address("192.0.2.1"), "1"));
  EXPECT_THAT(observer.calls, ElementsAre("link " + index + " gone"));

  observer.calls.clear();
  RunIp({"-n", "red", "link", "delete", "far0"});
  EXPECT_TRUE(RunUntil(
      [&] { return testing::Value(observer.calls, Contains("link " + index + " gone")); }));
}

TEST_F(NetlinkWatcherTest, WatchesEachVrfThroughASocketInIt) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddVrf("blue");
  const ino_t own = test::CurrentNetworkNamespace();
  for (const char* vrf : {"", "red", "blue"}) watcher.CreateNetlinkSocketInVrf(vrf);
  EXPECT_EQ(test::CurrentNetworkNamespace(), own);
  vrfs.AddLink("red", {"near0", ""}, {"far0", "10.9.0.2/24"});
  ASSERT_TRUE(RunUntilFound("10.9.0.2", "red"));
  EXPECT_FALSE(table->Find(make_address("10.9.0.2"), "1"));
  EXPECT_FALSE(table->Find(make_address("10.9.0.2"), "blue"));
  EXPECT_EQ(table->Find(make_address("10.9.0.2"), "red")->name, "far0");
  EXPECT_THAT(observer.vrf_keys, ElementsAre("1", "red")) << "both ends of the link were told";
  EXPECT_EQ(test::CurrentNetworkNamespace(), own);
}

TEST_F(NetlinkWatcherTest, TwoTasksInOneVrfShareOneSocket) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  watcher.CreateNetlinkSocketInVrf("red");
  const auto sockets = RoutingSocketsIn("red");
  table->Erase(make_address("127.0.0.1"), "red", 1);
  watcher.CreateNetlinkSocketInVrf("red");
  EXPECT_EQ(RoutingSocketsIn("red"), sockets);
  EXPECT_FALSE(table->Find(make_address("127.0.0.1"), "red")) << "the interfaces were read again";
}

TEST_F(NetlinkWatcherTest, EmptyNameAndOneAreTheSameVrf) {
  VrfFixture vrfs;
  watcher.CreateNetlinkSocketInVrf("");
  watcher.CreateNetlinkSocketInVrf("1");
  EXPECT_THAT(RoutingSocketsIn(""), SizeIs(1));
}

TEST_F(NetlinkWatcherTest, TwoNamesOfOneNamespaceAreBothWatched) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  std::ofstream("/run/netns/crimson").close();
  ASSERT_EQ(mount("/run/netns/red", "/run/netns/crimson", "none", MS_BIND, nullptr), 0);
  watcher.CreateNetlinkSocketInVrf("red");
  watcher.CreateNetlinkSocketInVrf("crimson");
  umount2("/run/netns/crimson", MNT_DETACH);
  unlink("/run/netns/crimson");
  vrfs.AddLink("red", {"near0", ""}, {"far0", "10.9.0.2/24"});
  EXPECT_TRUE(RunUntilFound("10.9.0.2", "red"));
  EXPECT_TRUE(RunUntilFound("10.9.0.2", "crimson"));
}

TEST_F(NetlinkWatcherTest, UnknownVrfFailsAndLeavesNothingBehind) {
  const ino_t own = test::CurrentNetworkNamespace();
  try {
    watcher.CreateNetlinkSocketInVrf("nowhere");
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "CreateNetlinkSocketInVrf failed");
  }
  EXPECT_THAT(test::TakeSyslogTexts(),
              Contains(HasSubstr("Catch exception SetNetworkNamespacenowherefailed")));
  EXPECT_THAT(table->OfVrf("nowhere"), IsEmpty());
  EXPECT_EQ(test::CurrentNetworkNamespace(), own);
}

TEST_F(NetlinkWatcherTest, VrfWithoutAWayBackFailsAndLeavesTheThreadAtHome) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.Unregister("1");
  const ino_t own = test::CurrentNetworkNamespace();
  EXPECT_THROW(watcher.CreateNetlinkSocketInVrf("red"), std::runtime_error);
  EXPECT_THAT(RoutingSocketsIn("red"), IsEmpty());
  EXPECT_THAT(table->OfVrf("red"), IsEmpty());
  EXPECT_EQ(test::CurrentNetworkNamespace(), own);
}

TEST_F(NetlinkWatcherTest, ReleaseClosesTheSocketAndForgetsTheAddresses) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  watcher.CreateNetlinkSocketInVrf("");
  const auto own_addresses = table->OfVrf("1");
  watcher.CreateNetlinkSocketInVrf("red");
  EXPECT_THAT(table->OfVrf("red"), Not(IsEmpty()));
  watcher.Release("red");
  EXPECT_THAT(RoutingSocketsIn("red"), IsEmpty());
  EXPECT_THAT(table->OfVrf("red"), IsEmpty());
  EXPECT_EQ(table->OfVrf("1"), own_addresses);
  watcher.Release("red");  // unknown by now: no error
  watcher.CreateNetlinkSocketInVrf("red");
  EXPECT_THAT(RoutingSocketsIn("red"), SizeIs(1));
}

TEST_F(NetlinkWatcherTest, HandlerQueuedWhenTheWatcherEndsTouchesNothing) {
  {
    NetlinkWatcher passing(service, table, observer);
    passing.CreateNetlinkSocketInVrf("");
    service.poll();  // arms the receive in the reactor
    RunIp({"address", "add", "10.9.1.1/32", "dev", "lo"});
  }
  service.restart();
  service.run();
  RunIp({"address", "delete", "10.9.1.1/32", "dev", "lo"});
  EXPECT_THAT(observer.calls, IsEmpty());
}

TEST_F(NetlinkWatcherTest, ActsOnlyOnTheFirstMessageOfADatagram) {
  watcher.CreateNetlinkSocketInVrf("");
  const Bytes first = test::AddressMessage(20, AF_INET, 1, Attribute(kIfaLocal, {10, 9, 2, 1}));
  const Bytes second = test::AddressMessage(20, AF_INET, 1, Attribute(kIfaLocal, {10, 9, 2, 2}));
  InjectAndHandle("", test::operator+(first, second));
  EXPECT_EQ(table->Find(make_address("10.9.2.1"), "1")->name, "lo");
  EXPECT_FALSE(table->Find(make_address("10.9.2.2"), "1"));
  EXPECT_THAT(observer.calls, ElementsAre("address 1 10.9.2.1 0.0.0.0"));
}

TEST_F(NetlinkWatcherTest, NewIpv6AddressIsStoredButNobodyIsTold) {
  watcher.CreateNetlinkSocketInVrf("");
  Bytes address(16);
  address[0] = 0x20;
  address[1] = 0x01;
  address[15] = 9;
  InjectAndHandle("", test::AddressMessage(20, AF_INET6, 1, Attribute(kIfaLocal, address)));
  EXPECT_TRUE(table->Find(make_address("2001::9"), "1"));
  EXPECT_THAT(observer.calls, IsEmpty());
  InjectAndHandle("", test::AddressMessage(21, AF_INET6, 1, Attribute(kIfaLocal, address)));
  EXPECT_FALSE(table->Find(make_address("2001::9"), "1"));
  EXPECT_THAT(observer.calls, IsEmpty());
}

TEST_F(NetlinkWatcherTest, AddressOfAnInterfaceThatIsNoMoreIsNotRunning) {
  watcher.CreateNetlinkSocketInVrf("");
  InjectAndHandle("", test::AddressMessage(20, AF_INET, 4711, Attribute(kIfaLocal, {10, 9, 2, 3})));
  EXPECT_EQ(table->Find(make_address("10.9.2.3"), "1"), (InterfaceRecord{0, 4711, ""}));
}

TEST_F(NetlinkWatcherTest, LinkMessageWithoutANameChangesFlagsOnly) {
  watcher.CreateNetlinkSocketInVrf("");
  InjectAndHandle("", test::LinkMessage(16, 1, 0x5, {}));
  EXPECT_EQ(table->Find(make_address("127.0.0.1"), "1")->flags, 0x5);
  EXPECT_THAT(observer.calls, IsEmpty()) << "a link without a name is not a link that is gone";
}

TEST_F(NetlinkWatcherTest, LogsNetlinkErrorsAsText) {
  watcher.CreateNetlinkSocketInVrf("");
  InjectAndHandle("", test::ErrorMessage(-EPERM));
  EXPECT_THAT(test::TakeSyslogTexts(), Contains("recv netlink error: Operation not permitted"));
}

TEST_F(NetlinkWatcherTest, HostileDatagramsChangeNothing) {
  watcher.CreateNetlinkSocketInVrf("");
  const auto before = table->OfVrf("1");
  InjectAndHandle("", Bytes{1});
  InjectAndHandle("", Bytes(8192, 0xFF));  // claims to be longer than it is
  InjectAndHandle("", test::Message(20, Bytes(7, 2)));
  EXPECT_EQ(table->OfVrf("1"), before);
}

}  // namespace
}  // namespace ipsla
