#include "env/socket_options.h"

#include <arpa/inet.h>
#include <netinet/ip.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "env/packet_stamps.h"
#include "support/loopback_socket.h"

namespace ipsla::test {
namespace {

TEST(SetSockOptTest, SetsTheOption) {
  const LoopbackSocket socket;
  const int ttl = 77;
  EXPECT_EQ(SetSockOpt(socket.Fd(), IPPROTO_IP, IP_TTL, &ttl, sizeof ttl, "IP_TTL"), 0);
  int set = 0;
  socklen_t length = sizeof set;
  ASSERT_EQ(getsockopt(socket.Fd(), IPPROTO_IP, IP_TTL, &set, &length), 0);
  EXPECT_EQ(set, ttl);
}

TEST(SetSockOptTest, NamesTheOptionInItsError) {
  const LoopbackSocket socket;
  const int ttl = 1000;
  try {
    SetSockOpt(socket.Fd(), IPPROTO_IP, IP_TTL, &ttl, sizeof ttl, "IP_TTL");
    FAIL() << "a TTL of 1000 was taken";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Failed to set sockoption IP_TTL: %m");
  }
}

TEST(ReserveReceiveBufferTest, KeepsABurstOfDatagrams) {
  constexpr int kBurst = 1000;
  const LoopbackSocket receiver;
  const LoopbackSocket sender;
  ReserveReceiveBuffer(receiver.Fd(), kBurst, 1500);
  const std::string payload(1500, 'x');
  for (int i = 0; i < kBurst; ++i) sender.SendTo(receiver, payload);
  std::array<char, 1500> buffer{};
  int error = 0;
  int received = 0;
  while (ReceiveStamped(receiver.Fd(), buffer.data(), buffer.size(), &error)) ++received;
  EXPECT_EQ(received, kBurst);
}

TEST(ReserveReceiveBufferTest, NeverShrinksTheBuffer) {
  const LoopbackSocket socket;
  const int before = socket.ReceiveBuffer();
  ReserveReceiveBuffer(socket.Fd(), 0, 0);
  ReserveReceiveBuffer(socket.Fd(), 1, 64);
  EXPECT_EQ(socket.ReceiveBuffer(), before);
  ReserveReceiveBuffer(socket.Fd(), 1000, 1500);
  const int grown = socket.ReceiveBuffer();
  EXPECT_GT(grown, before);
  ReserveReceiveBuffer(socket.Fd(), 10, 1500);
  EXPECT_EQ(socket.ReceiveBuffer(), grown);
}

TEST(ReserveReceiveBufferTest, StopsAtEightMebibytes) {
  const std::size_t huge = static_cast<std::size_t>(-1);
  for (const auto& [datagrams, bytes] :
       {std::pair{huge, huge}, {huge, std::size_t{1}}, {std::size_t{1}, huge}}) {
    const LoopbackSocket socket;
    ReserveReceiveBuffer(socket.Fd(), datagrams, bytes);
    EXPECT_EQ(socket.ReceiveBuffer(), 8 << 20);
  }
  ReserveReceiveBuffer(-1, 1000, 1000);  // no socket: nothing happens
}

}  // namespace
}  // namespace ipsla::test
