// The interface watcher against the kernel, in the test program's own network namespace and VRFs
// made for it.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_WATCHER_FIXTURE_H_
#define IPSLA_TESTS_UNIT_SUPPORT_WATCHER_FIXTURE_H_

#include <linux/netlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/netlink_watcher.h"
#include "env/descriptor.h"
#include "support/netlink_bytes.h"
#include "support/process_facts.h"
#include "support/recording_observer.h"
#include "support/recording_syslog.h"
#include "support/vrf_fixture.h"

namespace ipsla::test {

/// The watcher on a service context that the test runs.
class WatcherFixture : public testing::Test {
 protected:
  WatcherFixture() { TakeSyslog(); }

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
    return RunUntil(
        [&] { return table->Find(boost::asio::ip::make_address(address), vrf_key).has_value(); });
  }

  bool RunUntilGone(const std::string& address, const std::string& vrf_key) {
    return RunUntil([&] { return !table->Find(boost::asio::ip::make_address(address), vrf_key); });
  }

  // Sends one datagram to the VRF's netlink socket, as the kernel would.
  static void Inject(const std::string& vrf, const Bytes& bytes) {
    const auto send = [&] {
      sockaddr_nl to{};
      to.nl_family = AF_NETLINK;
      to.nl_pid = static_cast<std::uint32_t>(getpid());
      const Descriptor sender(socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
      const ssize_t sent = sendto(sender.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                                  reinterpret_cast<const sockaddr*>(&to), sizeof to);
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
    Inject(vrf, LinkMessage(16, 4242, 0, NameAttribute("marker")));
    ASSERT_TRUE(RunUntil(
        [&] { return !observer.calls.empty() && observer.calls.back() == "link 4242 marker"; }));
    observer.calls.pop_back();
  }

  // Leaves the VRF's netlink socket room for a message or two.
  static void MakeRoomForFew(const std::string& vrf) {
    const auto sockets = RoutingSocketsIn(vrf);
    ASSERT_THAT(sockets, testing::SizeIs(1));
    const int smallest = 1;
    ASSERT_EQ(setsockopt(DescriptorOf(*sockets.begin()), SOL_SOCKET, SO_RCVBUF, &smallest,
                         sizeof smallest),
              0);
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
  RecordingObserver observer;
  // Takes the messages that the tests inject.
  NetlinkWatcher watcher{service, table, observer,
                         [](const nl_protocol::endpoint& /*sender*/) { return true; }};
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_WATCHER_FIXTURE_H_
