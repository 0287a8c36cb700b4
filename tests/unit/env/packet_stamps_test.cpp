#include "env/packet_stamps.h"

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

#include "env/time_values.h"
#include "support/loopback_socket.h"

namespace ipsla::test {
namespace {

constexpr std::int64_t kMillisecond = 1000000;

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
  SleepUntil(SteadyNow() + std::chrono::milliseconds(5));
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
  const SteadyTime deadline = SteadyNow() + std::chrono::seconds(10);
  Arrival arrival = TakeLate(receiver);
  while (arrival.stamp > arrival.readable && SteadyNow() < deadline) arrival = TakeLate(receiver);
  EXPECT_GE(arrival.stamp, arrival.sent);
  EXPECT_LE(arrival.stamp, arrival.readable);
}

TEST(ReceiveStampedTest, ReadsTheClockWhenTheKernelDoesNotStamp) {
  const LoopbackSocket receiver;
  const Arrival arrival = TakeLate(receiver);
  EXPECT_GE(arrival.stamp, arrival.taken);
  EXPECT_LE(arrival.stamp, ToNanoseconds(RealTimeNow()));
}

}  // namespace
}  // namespace ipsla::test
