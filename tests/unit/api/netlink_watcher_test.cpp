// The interface watcher against the kernel, in the test program's own network namespace and VRFs
// made for it.

#include "api/netlink_watcher.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/netlink_bytes.h"
#include "support/recording_syslog.h"
#include "support/vrf_fixture.h"

namespace ipsla {
namespace {

using boost::asio::ip::make_address;
using test::Attribute;
using test::Bytes;
using test::kIfaLocal;
using test::RunIp;
using test::VrfFixture;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// Writes down what it is told, as text.
class ObserverRecorder : public InterfaceObserver {
 public:
  void UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                          std::uint32_t new_address, std::uint32_t old_address) override {
    vrf_keys.insert(vrf_key);
    calls.push_back("address " + std::to_string(if_index) + " " + Text(new_address) + " " +
                    Text(old_address));
  }
  void SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                         const std::optional<std::string>& if_name) override {
    vrf_keys.insert(vrf_key);
    calls.push_back("link " + std::to_string(if_index) + " " + if_name.value_or("gone"));
  }
  std::vector<std::string> calls;
  std::set<std::string> vrf_keys;  // of all calls

 private:
  static std::string Text(std::uint32_t address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
  }
};

class NetlinkWatcherTest : public testing::Test {
 protected:
  NetlinkWatcherTest() { test::TakeSyslog(); }

  bool RunUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      service.restart();
      service.run_one_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  bool RunUntilFound(const std::string& address, const std::string& vrf_key) {
    return RunUntil([&] { return table->Find(make_address(address), vrf_key).has_value(); });
  }

  bool RunUntilGone(const std::string& address, const std::string& vrf_key) {
    return RunUntil([&] { return !table->Find(make_address(address), vrf_key); });
  }

  // Sends one datagram to the VRF's netlink socket, as the kernel would.
  void Inject(const std::string& vrf, const Bytes& bytes) {
    sockaddr_nl to{};
    socklen_t length = sizeof to;
    ASSERT_EQ(getsockname(watcher.NativeHandle(vrf), reinterpret_cast<sockaddr*>(&to), &length), 0);
    to.nl_groups = 0;
    const auto send = [&] {
      const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
      const ssize_t sent = sendto(fd, bytes.data(), bytes.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&to), sizeof to);
      close(fd);
      ASSERT_EQ(sent, static_cast<ssize_t>(bytes.size()));
    };
    if (vrf.empty()) {
      send();
    } else {
      VrfFixture::RunInVrf(vrf, send);
    }
  }

  // Injects, then runs until the watcher has handled it: a second datagram marks the end.
  void InjectAndHandle(const std::string& vrf, const Bytes& bytes) {
    Inject(vrf, bytes);
    Inject(vrf, test::LinkMessage(16, 4242, 0, test::NameAttribute("marker")));
    ASSERT_TRUE(RunUntil(
        [&] { return !observer.calls.empty() && observer.calls.back() == "link 4242 marker"; }));
    observer.calls.pop_back();
  }

  static std::string IndexOf(const std::string& name) {
    return std::to_string(if_nametoindex(name.c_str()));
  }

  static std::string IndexInVrf(const std::string& vrf, const std::string& name) {
    std::string index;
    VrfFixture::RunInVrf(vrf, [&] { index = IndexOf(name); });
    return index;
  }

  boost::asio::io_context service;
  std::shared_ptr<InterfaceTable> table = std::make_shared<InterfaceTable>();
  ObserverRecorder observer;
  NetlinkWatcher watcher{service, table, observer};
};

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
  const int fd = watcher.NativeHandle("red");
  table->Erase(make_address("127.0.0.1"), "red", 1);
  watcher.CreateNetlinkSocketInVrf("red");
  EXPECT_EQ(watcher.NativeHandle("red"), fd);
  EXPECT_FALSE(table->Find(make_address("127.0.0.1"), "red")) << "the interfaces were read again";
}

TEST_F(NetlinkWatcherTest, EmptyNameAndOneAreTheSameVrf) {
  VrfFixture vrfs;
  watcher.CreateNetlinkSocketInVrf("");
  const int fd = watcher.NativeHandle("");
  watcher.CreateNetlinkSocketInVrf("1");
  EXPECT_EQ(watcher.NativeHandle("1"), fd);
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
  EXPECT_EQ(watcher.NativeHandle("nowhere"), -1);
  EXPECT_THAT(table->OfVrf("nowhere"), IsEmpty());
  EXPECT_EQ(test::CurrentNetworkNamespace(), own);
}

TEST_F(NetlinkWatcherTest, VrfWithoutAWayBackFailsAndLeavesTheThreadAtHome) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.Unregister("1");
  const ino_t own = test::CurrentNetworkNamespace();
  EXPECT_THROW(watcher.CreateNetlinkSocketInVrf("red"), std::runtime_error);
  EXPECT_EQ(watcher.NativeHandle("red"), -1);
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
  EXPECT_EQ(watcher.NativeHandle("red"), -1);
  EXPECT_THAT(table->OfVrf("red"), IsEmpty());
  EXPECT_EQ(table->OfVrf("1"), own_addresses);
  watcher.Release("red");  // unknown by now: no error
  watcher.CreateNetlinkSocketInVrf("red");
  EXPECT_NE(watcher.NativeHandle("red"), -1);
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

TEST_F(NetlinkWatcherTest, VrfWhoseNameIsGoneKeepsItsWatch) {
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

// The socket overflows while nobody reads; what was lost is found out by comparison.
TEST_F(NetlinkWatcherTest, LostMessagesAreMadeUpFor) {
  VrfFixture vrfs;
  vrfs.AddVrf("red");
  vrfs.AddLink("red", {"near0", ""}, {"far0", "10.9.0.2/24"});
  RunIp({"-n", "red", "address", "add", "10.9.3.1/32", "dev", "far0"});
  RunIp({"-n", "red", "address", "add", "10.9.3.2/32", "dev", "far0"});
  watcher.CreateNetlinkSocketInVrf("red");
  const std::string index = IndexInVrf("red", "far0");
  const int smallest = 1;
  ASSERT_EQ(
      setsockopt(watcher.NativeHandle("red"), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest),
      0);
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

TEST_F(NetlinkWatcherTest, LostMessageOfALinkThatIsGoneIsMadeUpFor) {
  watcher.CreateNetlinkSocketInVrf("");
  table->Set(make_address("10.9.5.1"), "1", {IFF_RUNNING, 4711, "was"});
  Bytes truncated = test::LinkMessage(16, 1, 0, {});
  truncated[0] = 0xFF;  // longer than what arrives
  InjectAndHandle("", truncated);
  EXPECT_FALSE(table->Find(make_address("10.9.5.1"), "1"));
  ASSERT_GE(observer.calls.size(), 3U);
  EXPECT_EQ(observer.calls.front(), "link 4711 gone");
  EXPECT_EQ(observer.calls.back(), "address 4711 0.0.0.0 10.9.5.1");
  EXPECT_THAT(observer.calls, Contains("link 1 lo"));
}

}  // namespace
}  // namespace ipsla
