#include "sender/measurement_socket.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <chrono>

#include <boost/asio/io_context.hpp>
#include <boost/system/error_code.hpp>
#include <gtest/gtest.h>

#include "support/watched_sockets.h"

namespace ipsla {
namespace {

class MeasurementSocketTest : public testing::Test {
 protected:
  void OpenOnLoopback() {
    socket.Open(SOCK_DGRAM, IPPROTO_UDP);
    socket.Bind(loopback);
    loopback.sin_port = htons(socket.LocalPort());
  }

  boost::asio::io_context context;
  MeasurementSocket socket{context};
  sockaddr_in loopback{
      .sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
  const std::array<std::uint8_t, 3> bytes{1, 2, 3};
};

TEST_F(MeasurementSocketTest, IsNotWatchedBeforeSomethingWaitsForIt) {
  const std::size_t before = test::WatchedSockets();
  OpenOnLoopback();
  EXPECT_EQ(socket.Send(bytes, &loopback), 0);
  EXPECT_EQ(test::WatchedSockets(), before);
  socket.WaitToReceive([](const boost::system::error_code&) {});
  EXPECT_EQ(test::WatchedSockets(), before + 1);
  socket.Close();
  EXPECT_EQ(test::WatchedSockets(), before);
}

TEST_F(MeasurementSocketTest, FindsWhatCameBeforeItWasWaitedFor) {
  OpenOnLoopback();
  ASSERT_EQ(socket.Send(bytes, &loopback), 0);
  int called = 0;
  const auto wait = [&] {
    socket.WaitToReceive([&](const boost::system::error_code& error) {
      EXPECT_FALSE(error);
      ++called;
    });
    context.restart();
    context.run_one_for(std::chrono::seconds(10));
  };
  wait();
  EXPECT_EQ(called, 1);
  wait();
  EXPECT_EQ(called, 2) << "it was not taken";
}

TEST_F(MeasurementSocketTest, CanBeOpenedAgain) {
  for (int round = 0; round < 3; ++round) {
    loopback.sin_port = 0;
    OpenOnLoopback();
    EXPECT_GE(socket.Fd(), 0);
    if (round == 1) socket.WaitToReceive([](const boost::system::error_code&) {});
    socket.Close();
    EXPECT_EQ(socket.Fd(), -1);
    socket.Close();
  }
}

}  // namespace
}  // namespace ipsla
