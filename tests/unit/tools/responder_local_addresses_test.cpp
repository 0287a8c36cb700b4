#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "responder/local_addresses.h"
#include "responder/udp_socket.h"

namespace ipsla::responder {
namespace {

// Runs the rest of a test in a network namespace of its own, in which the loopback interface is
// down.
void InOwnNamespace(const std::function<void()>& body) {
  std::thread([&body] {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << std::strerror(errno);
    body();
  }).join();
}

void GiveLoopbackAddress(const char* text) {
  int error = 0;
  const Descriptor fd = OpenUdpSocket({}, &error);
  ASSERT_TRUE(fd);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  const sockaddr_in address = ToSockaddr({.address = ntohl(inet_addr(text))});
  std::memcpy(&request.ifr_addr, &address, sizeof address);
  ASSERT_EQ(ioctl(fd.Get(), SIOCSIFADDR, &request), 0) << std::strerror(errno);
}

TEST(LocalAddresses, KnowsTheLoopbackNetAndNoBroadcastOrForeignAddress) {
  LocalAddresses addresses;
  EXPECT_TRUE(addresses.Contains({inet_addr("127.0.0.1")}, 0));
  EXPECT_TRUE(addresses.Contains({inet_addr("127.1.2.3")}, 0));
  EXPECT_FALSE(addresses.Contains({inet_addr("192.0.2.1")}, 0));
  EXPECT_FALSE(addresses.Contains({inet_addr("255.255.255.255")}, 0));
  EXPECT_FALSE(addresses.Contains({0}, 0));
}

TEST(LocalAddresses, ReadsTheListOnceAndAgainAfterAChange) {
  InOwnNamespace([] {
    LocalAddresses addresses;
    ASSERT_GE(addresses.Fd(), 0);
    EXPECT_FALSE(addresses.Contains({inet_addr("127.0.0.1")}, 0));
    for (std::int64_t now = 0; now < 100; ++now) {
      EXPECT_FALSE(addresses.Contains({inet_addr("10.9.8.7")}, now * 1'000'000'000));
    }
    EXPECT_EQ(addresses.Reads(), 1U);
    GiveLoopbackAddress("10.9.8.7");
    EXPECT_TRUE(addresses.Contains({inet_addr("10.9.8.7")}, 0));
    EXPECT_EQ(addresses.Reads(), 2U);
    GiveLoopbackAddress("10.9.8.6");
    addresses.NoteChanges();
    EXPECT_FALSE(addresses.Contains({inet_addr("10.9.8.7")}, 0));
    EXPECT_TRUE(addresses.Contains({inet_addr("10.9.8.6")}, 0));
    EXPECT_EQ(addresses.Reads(), 3U);
  });
}

}  // namespace
}  // namespace ipsla::responder
