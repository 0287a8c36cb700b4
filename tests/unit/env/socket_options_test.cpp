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

#include "env/environment.h"
#include "env/time_values.h"

namespace ipsla::test {
namespace {

constexpr std::int64_t kMillisecond = 1000000;

// A UDP socket on a port of the loopback interface.
class LoopbackSocket {
 public:
  LoopbackSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address_;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address_), length), 0);
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address_), &length), 0);
  }
  ~LoopbackSocket() { close(fd_); }
  LoopbackSocket(const LoopbackSocket&) = delete;
  LoopbackSocket& operator=(const LoopbackSocket&) = delete;

  [[nodiscard]] int Fd() const { return fd_; }
  [[nodiscard]] const sockaddr_in& Address() const { return address_; }

  void SendTo(const LoopbackSocket& peer, const std::string& text) const {
    const auto* to = reinterpret_cast<const sockaddr*>(&peer.address_);
    EXPECT_EQ(sendto(fd_, text.data(), text.size(), 0, to, sizeof peer.address_),
              static_cast<ssize_t>(text.size()));
  }

  void ConnectTo(const sockaddr_in& peer) const {
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer), 0);
  }

  void WaitReadable() const {
    pollfd wait{fd_, POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 10000), 1);
  }

  [[nodiscard]] int ReceiveBuffer() const {
    int size = 0;
    socklen_t length = sizeof size;
    EXPECT_EQ(getsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
    return size;
  }

 private:
  int fd_;
  sockaddr_in address_{};
};

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

TEST(ReceiveStampedTest, TakesOneDatagramWithItsSource) {
  const LoopbackSocket receiver;
  const LoopbackSocket sender;
  sender.SendTo(receiver, "hello");
  receiver.WaitReadable();
  std::array<char, 16> buffer{};
  int error = -1;
  const auto datagram = ReceiveStamped(receiver.Fd(), buffer.data(), buffer.size(), &error);
  ASSERT_TRUE(datagram);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(datagram->bytes, 5U);
  EXPECT_STREQ(buffer.data(), "hello");
  EXPECT_EQ(datagram->source.sin_addr.s_addr, sender.Address().sin_addr.s_addr);
  EXPECT_EQ(datagram->source.sin_port, sender.Address().sin_port);
}

TEST(ReceiveStampedTest, DoesNotWait) {
  const LoopbackSocket receiver;
  std::array<char, 16> buffer{};
  int error = 0;
  EXPECT_FALSE(ReceiveStamped(receiver.Fd(), buffer.data(), buffer.size(), &error));
  EXPECT_EQ(error, EAGAIN);
}

TEST(ReceiveStampedTest, TellsErrorsOfTheSocket) {
  const LoopbackSocket receiver;
  sockaddr_in closed{};
  {
    const LoopbackSocket gone;
    closed = gone.Address();
  }
  receiver.ConnectTo(closed);
  ASSERT_EQ(send(receiver.Fd(), "x", 1, 0), 1);
  receiver.WaitReadable();
  std::array<char, 16> buffer{};
  int error = 0;
  EXPECT_FALSE(ReceiveStamped(receiver.Fd(), buffer.data(), buffer.size(), &error));
  EXPECT_EQ(error, ECONNREFUSED);
  EXPECT_FALSE(ReceiveStamped(-1, buffer.data(), buffer.size(), &error));
  EXPECT_EQ(error, EBADF);
}

TEST(ReceiveStampedTest, CutsALongDatagramAndTakesAnEmptyOne) {
  const LoopbackSocket receiver;
  const LoopbackSocket sender;
  sender.SendTo(receiver, "much too long");
  sender.SendTo(receiver, "");
  receiver.WaitReadable();
  std::array<char, 5> buffer{};
  int error = -1;
  auto datagram = ReceiveStamped(receiver.Fd(), buffer.data(), 4, &error);
  ASSERT_TRUE(datagram);
  EXPECT_EQ(datagram->bytes, 4U);
  EXPECT_STREQ(buffer.data(), "much");
  datagram = ReceiveStamped(receiver.Fd(), buffer.data(), 4, &error);
  ASSERT_TRUE(datagram);
  EXPECT_EQ(datagram->bytes, 0U);
}

struct Arrival {
  std::int64_t sent;      // real-time clock before sending
  std::int64_t readable;  // when the datagram was seen to be there
  std::int64_t taken;     // before it was taken, at least 5 ms later
  std::int64_t stamp;
};

Arrival TakeLate(const LoopbackSocket& receiver) {
  const LoopbackSocket sender;
  Arrival arrival{};
  arrival.sent = ToNanoseconds(RealTimeNow());
  sender.SendTo(receiver, "probe");
  receiver.WaitReadable();
  arrival.readable = ToNanoseconds(RealTimeNow());
  SleepUntil(SteadyNanoseconds() + 5 * kMillisecond);
  arrival.taken = ToNanoseconds(RealTimeNow());
  std::array<char, 16> buffer{};
  int error = 0;
  const auto datagram = ReceiveStamped(receiver.Fd(), buffer.data(), buffer.size(), &error);
  arrival.stamp = datagram ? ToNanoseconds(datagram->arrival) : 0;
  return arrival;
}

TEST(ReceiveStampedTest, StampsTheArrivalHoweverLateTheDatagramIsTaken) {
  const LoopbackSocket receiver;
  EnableReceiveStamps(receiver.Fd());
  // The kernel begins to stamp a moment after the first socket asked for it.
  const std::int64_t deadline = SteadyNanoseconds() + 10000 * kMillisecond;
  Arrival arrival = TakeLate(receiver);
  while (arrival.stamp > arrival.readable && SteadyNanoseconds() < deadline)
    arrival = TakeLate(receiver);
  EXPECT_GE(arrival.stamp, arrival.sent);
  EXPECT_LE(arrival.stamp, arrival.readable);
}

TEST(ReceiveStampedTest, ReadsTheClockWhenTheKernelDoesNotStamp) {
  const LoopbackSocket receiver;
  const Arrival arrival = TakeLate(receiver);
  EXPECT_GE(arrival.stamp, arrival.taken);
  EXPECT_LE(arrival.stamp, ToNanoseconds(RealTimeNow()));
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
