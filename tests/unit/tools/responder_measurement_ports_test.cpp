#include <sys/epoll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "responder/measurement_ports.h"

namespace ipsla::responder {
namespace {

using Status = SlaControlStatus;

constexpr std::uint32_t kLoopbackNet = 0x7f000001;

Endpoint Local(std::uint16_t port, std::uint32_t address = kLoopbackNet) {
  return {.address = address, .port = port};
}

class MeasurementPortsTest : public testing::Test {
 protected:
  static bool IsFree(const Endpoint& local) {
    int error = 0;
    return static_cast<bool>(OpenUdpSocket(local, &error));
  }

  Descriptor poll_{epoll_create1(EPOLL_CLOEXEC)};
  MeasurementPorts ports_{40000, 40010, poll_.Get()};
};

TEST_F(MeasurementPortsTest, KeepAPortOpenAsLongAsItIsHeld) {
  ASSERT_EQ(ports_.Hold(Local(40003)), Status::kSuccessful);
  ASSERT_EQ(ports_.Hold(Local(40003)), Status::kSuccessful);
  ports_.Release(Local(40003));
  EXPECT_FALSE(IsFree(Local(40003)));
  ports_.Release(Local(40003));
  EXPECT_TRUE(IsFree(Local(40003)));
}

TEST_F(MeasurementPortsTest, TellWhyAPortCannotBeHad) {
  int error = 0;
  const Descriptor taken = OpenUdpSocket(Local(40005), &error);
  ASSERT_TRUE(taken);
  EXPECT_EQ(ports_.Hold(Local(40005)), Status::kRequestedPortIsBusy);
  EXPECT_EQ(ports_.Hold(Local(39999)), Status::kRequestedPortIsBusy);
  EXPECT_EQ(ports_.Hold(Local(40011)), Status::kRequestedPortIsBusy);
  EXPECT_EQ(ports_.Hold(Local(40001, 0xc0000201)), Status::kUnsupportedAddress);
}

TEST_F(MeasurementPortsTest, ChooseTheHighestFreePort) {
  int error = 0;
  const Descriptor taken = OpenUdpSocket(Local(40010), &error);
  Endpoint local = Local(0);
  EXPECT_EQ(ports_.HoldAny(&local), Status::kSuccessful);
  EXPECT_EQ(local, Local(40009));
  local = Local(0, 0xc0000201);
  EXPECT_EQ(ports_.HoldAny(&local), Status::kUnsupportedAddress);
}

TEST_F(MeasurementPortsTest, HaveNoneWhereAllAreTaken) {
  MeasurementPorts others(40000, 40010, poll_.Get());
  for (std::uint16_t port = 40000; port <= 40010; ++port) {
    ASSERT_EQ(others.Hold(Local(port)), Status::kSuccessful);
  }
  Endpoint local = Local(0);
  EXPECT_EQ(ports_.HoldAny(&local), Status::kRequestedPortIsBusy);
}

TEST_F(MeasurementPortsTest, RefuseWhatTheLoopCannotWatch) {
  MeasurementPorts unwatched(40000, 40010, -1);
  EXPECT_EQ(unwatched.Hold(Local(40001)), Status::kUnknownInternalError);
  EXPECT_TRUE(IsFree(Local(40001)));
  Endpoint local = Local(0);
  EXPECT_EQ(unwatched.HoldAny(&local), Status::kUnknownInternalError);
}

TEST_F(MeasurementPortsTest, AreTheDataOfTheirEvents) {
  ASSERT_EQ(ports_.Hold(Local(40002)), Status::kSuccessful);
  int error = 0;
  const Descriptor sender = OpenUdpSocket(Local(0), &error);
  const sockaddr_in to = ToSockaddr(Local(40002));
  ASSERT_EQ(sendto(sender.Get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to), 1);
  epoll_event event{};
  ASSERT_EQ(epoll_wait(poll_.Get(), &event, 1, 20000), 1);
  EXPECT_EQ(static_cast<MeasurementSocket*>(event.data.ptr)->local, Local(40002));
}

}  // namespace
}  // namespace ipsla::responder
