#include "env/network_namespace.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "env/namespace_scope.h"
#include "support/text_files.h"
#include "support/vrf_fixture.h"

namespace ipsla::test {
namespace {

std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator begin("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin, std::filesystem::directory_iterator{}));
}

std::string ErrorOf(const std::function<void()>& body) {
  try {
    body();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no exception";
}

class NetworkNamespaceTest : public testing::Test {
 protected:
  NetworkNamespaceTest() {
    vrfs_.AddVrf("blue");
    VrfFixture::RunInVrf("blue", [this] { blue_ = CurrentNetworkNamespace(); });
    descriptors_ = OpenDescriptors();
  }
  ~NetworkNamespaceTest() override {
    EXPECT_EQ(CurrentNetworkNamespace(), own_);
    EXPECT_EQ(OpenDescriptors(), descriptors_);
  }

  VrfFixture vrfs_;
  const ino_t own_ = CurrentNetworkNamespace();
  ino_t blue_ = 0;
  std::size_t descriptors_ = 0;
};

TEST(VrfKeyTest, NamesTheDaemonsOwnNamespaceForNoName) {
  EXPECT_EQ(VrfKey(""), "1");
  EXPECT_EQ(VrfKey("blue"), "blue");
}

TEST_F(NetworkNamespaceTest, MovesTheCallingThreadOnly) {
  ASSERT_NE(own_, blue_);
  std::thread([this] {
    SetNetworkNamespace("blue");
    EXPECT_EQ(CurrentNetworkNamespace(), blue_);
  }).join();
  EXPECT_EQ(CurrentNetworkNamespace(), own_);
}

TEST_F(NetworkNamespaceTest, NamesTheFailingStepInItsError) {
  WriteText("/run/netns/plain", "no namespace");
  EXPECT_EQ(ErrorOf([] { SetNetworkNamespace(""); }),
            "SetNetworkNamespacefailed: invalid network namespace");
  EXPECT_EQ(ErrorOf([] { SetNetworkNamespace("red"); }),
            "SetNetworkNamespaceredfailed: open() failed: %m");
  EXPECT_EQ(ErrorOf([] { SetNetworkNamespace("plain"); }),
            "SetNetworkNamespaceplainfailed: syscall() failed: %m");
  std::filesystem::remove("/run/netns/plain");
}

TEST_F(NetworkNamespaceTest, EntersForABlockAndReturns) {
  {
    NetworkNamespaceScope scope("blue");
    EXPECT_EQ(CurrentNetworkNamespace(), blue_);
    scope.Leave();
    EXPECT_EQ(CurrentNetworkNamespace(), own_);
    scope.Leave();
  }
  {
    const NetworkNamespaceScope scope("blue");
    EXPECT_EQ(CurrentNetworkNamespace(), blue_);
  }
}

TEST_F(NetworkNamespaceTest, StaysForAnEmptyName) {
  vrfs_.Unregister("1");
  NetworkNamespaceScope scope("");
  EXPECT_EQ(CurrentNetworkNamespace(), own_);
  EXPECT_NO_THROW(scope.Leave());
}

TEST_F(NetworkNamespaceTest, StaysWhenTheVrfIsUnknown) {
  EXPECT_EQ(ErrorOf([] { const NetworkNamespaceScope scope("red"); }),
            "SetNetworkNamespaceredfailed: open() failed: %m");
}

TEST_F(NetworkNamespaceTest, ReturnsWhenALaterStepThrows) {
  const auto body = [this] {
    const NetworkNamespaceScope scope("blue");
    EXPECT_EQ(CurrentNetworkNamespace(), blue_);
    throw std::runtime_error("a later step");
  };
  EXPECT_EQ(ErrorOf(body), "a later step");
}

TEST_F(NetworkNamespaceTest, ReturnsAndThrowsWhenTheOwnNamespaceIsNotRegistered) {
  NetworkNamespaceScope scope("blue");
  vrfs_.Unregister("1");
  EXPECT_EQ(ErrorOf([&] { scope.Leave(); }), "SetNetworkNamespace1failed: open() failed: %m");
  EXPECT_EQ(CurrentNetworkNamespace(), own_);
  EXPECT_NO_THROW(scope.Leave());
}

TEST_F(NetworkNamespaceTest, ReturnsSilentlyWithoutLeaveWhenTheOwnNamespaceIsNotRegistered) {
  const NetworkNamespaceScope scope("blue");
  vrfs_.Unregister("1");
}

TEST_F(NetworkNamespaceTest, LeavesToTheRegisteredNamespaceWhereverTheThreadCameFrom) {
  vrfs_.AddVrf("green");
  VrfFixture::RunInVrf("green", [this] {
    NetworkNamespaceScope scope("blue");
    scope.Leave();
    EXPECT_EQ(CurrentNetworkNamespace(), own_);
  });
}

TEST_F(NetworkNamespaceTest, LeavesItsSocketsInTheVrf) {
  vrfs_.AddLink("blue", {"near0", "10.9.0.1/24"}, {"far0", "10.9.0.2/24"});
  sockaddr_in far{};
  far.sin_family = AF_INET;
  ASSERT_EQ(inet_pton(AF_INET, "10.9.0.2", &far.sin_addr), 1);
  const auto* address = reinterpret_cast<const sockaddr*>(&far);
  NetworkNamespaceScope scope("blue");
  const int inside = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  scope.Leave();
  const int outside = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(inside, address, sizeof far), 0);
  EXPECT_NE(bind(outside, address, sizeof far), 0);
  close(inside);
  close(outside);
}

}  // namespace
}  // namespace ipsla::test
