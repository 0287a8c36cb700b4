// The interface watcher after something went wrong: messages lost, a VRF's namespace exchanged.

#include <net/if.h>
#include <unistd.h>

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

using NetlinkWatcherRecoveryTest = test::WatcherFixture;

TEST_F(NetlinkWatcherRecoveryTest, VrfWhoseNameIsGoneKeepsItsWatchUntilThatIsSeen) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  watcher.CreateNetlinkSocketInVrf("red");
  Inject("red", test::AddressMessage(20, AF_INET, 1, Attribute(kIfaLocal, {10, 9, 2, 4})));
  vrfs.Unregister("red");
  EXPECT_TRUE(RunUntilFound("10.9.2.4", "red"));
  EXPECT_EQ(table->Find(make_address("10.9.2.4"), "red")->flags, 0);
  EXPECT_THAT(test::TakeSyslogTexts(),
              Contains(HasSubstr("Catch exception SetNetworkNamespaceredfailed")));
}

TEST_F(NetlinkWatcherRecoveryTest, WatchMovesWithTheNameToAnotherNamespace) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddLink("red", {"near0", ""}, {"far0", "10.9.0.2/24"});
  watcher.CreateNetlinkSocketInVrf("red");
  const std::string index = IndexInVrf("red", "far0");
  vrfs.Unregister("red");
  vrfs.AddVrf("red");
  RunIp({"-n", "red", "address", "add", "10.9.6.1/32", "dev", "lo"});
  watcher.CheckVrfs();
  EXPECT_FALSE(table->Find(make_address("10.9.0.2"), "red"));
  EXPECT_TRUE(table->Find(make_address("10.9.6.1"), "red"));
  EXPECT_THAT(observer.calls, Contains("address " + index + " 0.0.0.0 10.9.0.2"));
  EXPECT_THAT(observer.calls, Contains("link " + index + " gone"));
  // The same number and address in both namespaces: gone there, and here now.
  EXPECT_THAT(observer.calls, Contains("address 1 0.0.0.0 127.0.0.1"));
  EXPECT_EQ(observer.calls.back(), "address 1 127.0.0.1 0.0.0.0");
  EXPECT_THAT(RoutingSocketsIn("red"), SizeIs(1));
  RunIp({"-n", "red", "address", "add", "10.9.6.2/32", "dev", "lo"});
  EXPECT_TRUE(RunUntilFound("10.9.6.2", "red")) << "the new one is followed";
}

TEST_F(NetlinkWatcherRecoveryTest, NamespaceWhoseNameIsGoneIsLetGo) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddLink("red", {"near0", ""}, {"far0", "10.9.0.2/24"});
  watcher.CreateNetlinkSocketInVrf("red");
  vrfs.Unregister("red");
  // Its links go with the namespace, which ends with the last socket in it.
  EXPECT_TRUE(RunUntil([] { return if_nametoindex("near0") == 0; }));
  EXPECT_THAT(table->OfVrf("red"), IsEmpty());
  EXPECT_THAT(test::TakeSyslogTexts(), Contains("VRF red: its network namespace is gone"));
  vrfs.AddVrf("red");
  EXPECT_TRUE(RunUntilFound("127.0.0.1", "red")) << "seen without being told";
}

TEST_F(NetlinkWatcherRecoveryTest, NameThatStandsForNoNamespaceIsTriedAgainAndSaidOnce) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  watcher.CreateNetlinkSocketInVrf("red");
  vrfs.Unregister("red");
  std::ofstream("/run/netns/red").close();
  test::TakeSyslog();
  for (int round = 0; round < 3; ++round) watcher.CheckVrfs();
  EXPECT_THAT(test::TakeSyslogTexts(),
              ElementsAre("VRF red: its network namespace is another one",
                          HasSubstr("Catch exception SetNetworkNamespaceredfailed")));
  unlink("/run/netns/red");
  vrfs.AddVrf("red");
  watcher.CheckVrfs();
  EXPECT_TRUE(table->Find(make_address("127.0.0.1"), "red"));
}

// The socket overflows while nobody reads; what was lost is found out by comparison. The kernel
// reports the overflow before the messages that still stand in the socket: these are older than the
// answer and must not be applied to it.
TEST_F(NetlinkWatcherRecoveryTest, MessagesFromBeforeTheOverflowDoNotUndoWhatWasFoundOut) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddLink("red", {"near0", ""}, {"far0", "10.9.0.2/24"});
  RunIp({"-n", "red", "address", "add", "10.9.3.1/32", "dev", "far0"});
  watcher.CreateNetlinkSocketInVrf("red");
  MakeRoomForFew("red");
  RunIp({"-n", "red", "address", "delete", "10.9.3.1/32", "dev", "far0"});
  for (int last = 1; last <= 20; ++last) {
    RunIp({"-n", "red", "address", "add", "10.9.4." + std::to_string(last) + "/32", "dev", "far0"});
  }
  RunIp({"-n", "red", "address", "add", "10.9.3.1/32", "dev", "far0"});
  ASSERT_TRUE(RunUntilFound("10.9.4.20", "red"));
  RunIp({"-n", "red", "address", "add", "10.9.4.21/32", "dev", "far0"});
  ASSERT_TRUE(RunUntilFound("10.9.4.21", "red")) << "by then everything that waited was handled";
  EXPECT_TRUE(table->Find(make_address("10.9.3.1"), "red"));
}

// Likewise, at greater length.
TEST_F(NetlinkWatcherRecoveryTest, LostMessagesAreMadeUpFor) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddLink("red", {"near0", ""}, {"far0", "10.9.0.2/24"});
  RunIp({"-n", "red", "address", "add", "10.9.3.1/32", "dev", "far0"});
  RunIp({"-n", "red", "address", "add", "10.9.3.2/32", "dev", "far0"});
  watcher.CreateNetlinkSocketInVrf("red");
  const std::string index = IndexInVrf("red", "far0");
  MakeRoomForFew("red");
  RunIp({"-n", "red", "address", "delete", "10.9.3.1/32", "dev", "far0"});
  for (int last = 1; last <= 20; ++last) {
    RunIp({"-n", "red", "address", "add", "10.9.4." + std::to_string(last) + "/32", "dev", "far0"});
  }
  RunIp({"-n", "red", "address", "delete", "10.9.3.2/32", "dev", "far0"});

  ASSERT_TRUE(RunUntilGone("10.9.3.2", "red"));
  EXPECT_TRUE(table->Find(make_address("10.9.0.2"), "red"));
  EXPECT_FALSE(table->Find(make_address("10.9.3.1"), "red"));
  for (int last = 1; last <= 20; ++last) {
    const std::string address = "10.9.4." + std::to_string(last);
    EXPECT_TRUE(table->Find(make_address(address), "red")) << address;
    EXPECT_THAT(observer.calls, Contains("address " + index + " " + address + " 0.0.0.0"));
  }
  EXPECT_THAT(observer.calls, Contains("address " + index + " 0.0.0.0 10.9.3.1"));
  EXPECT_THAT(observer.calls, Contains("address " + index + " 0.0.0.0 10.9.3.2"));
  EXPECT_THAT(observer.calls, Not(Contains(HasSubstr("10.9.0.2"))));
  EXPECT_THAT(observer.calls, Contains("link " + index + " far0"));
}

TEST_F(NetlinkWatcherRecoveryTest, LostMessageOfALinkThatIsGoneIsMadeUpFor) {
  watcher.CreateNetlinkSocketInVrf("");
  table->Set(make_address("10.9.5.1"), "1", {IFF_RUNNING, 4711, "was"});
  Bytes truncated = test::LinkMessage(16, 1, 0, {});
  truncated[0] = 0xFF;  // longer than what arrives
  InjectAndHandle("", truncated);
  EXPECT_FALSE(table->Find(make_address("10.9.5.1"), "1"));
  ASSERT_GE(observer.calls.size(), 3U);
  EXPECT_EQ(observer.calls.at(0), "address 4711 0.0.0.0 10.9.5.1");
  EXPECT_EQ(observer.calls.at(1), "link 4711 gone");
  EXPECT_THAT(observer.calls, Contains("link 1 lo"));
}

}  // namespace
}  // namespace ipsla
