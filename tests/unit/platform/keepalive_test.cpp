// The stand-in for the watchdog library, as the daemon loads it.

#include "platform/keepalive.h"

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/paths.h"

namespace ipsla::test {
namespace {

struct Library {
  decltype(&send_signal_live) live = nullptr;
  decltype(&set_timeout) timeout = nullptr;
  decltype(&send_and_shift_timeout) shift = nullptr;
};

// Past the recording functions of this program to the library's own.
Library Load() {
  void* handle = dlopen(ipsla::test::LibraryPath("libkeepalive.so").c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) FinishChild(dlerror());
  Library library;
  library.live = reinterpret_cast<decltype(library.live)>(dlsym(handle, "send_signal_live"));
  library.timeout = reinterpret_cast<decltype(library.timeout)>(dlsym(handle, "set_timeout"));
  library.shift =
      reinterpret_cast<decltype(library.shift)>(dlsym(handle, "send_and_shift_timeout"));
  if (!library.live || !library.timeout || !library.shift || library.live == &send_signal_live) {
    FinishChild("symbols");
  }
  return library;
}

// A supervisor's socket, in the abstract name space.
int ListenAsSupervisor() {
  const std::string name = "ipsla-keepalive-" + std::to_string(getpid());
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) FinishChild("bind");
  setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
  return fd;
}

// Datagrams of a local socket are there as soon as they are sent.
std::string ReceiveNotice(int fd) {
  std::array<char, 128> buffer{};
  const ssize_t length = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
  return length < 0 ? "nothing" : std::string(buffer.data(), static_cast<std::size_t>(length));
}

void Expect(int fd, const std::string& notification) {
  const std::string received = ReceiveNotice(fd);
  if (received != notification) FinishChild("expected " + notification + ", received " + received);
}

TEST(KeepAliveStandInTest, NotifiesTheSupervisor) {
  const auto run = [] {
    const Library library = Load();
    const int supervisor = ListenAsSupervisor();
    std::array<char, KEEPALIVE_RECORD_BYTES> state{};
    std::array<char, KEEPALIVE_RECORD_BYTES> record{};
    library.live(1, 2);
    Expect(supervisor, "READY=1");
    library.timeout(state.data());
    Expect(supervisor, "READY=1");
    library.shift(state.data(), record.data(), 2);
    Expect(supervisor, "WATCHDOG=1");
    FinishChild("");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(KeepAliveStandInTest, IsSilentWithoutASupervisor) {
  const auto run = [] {
    const Library library = Load();
    const int supervisor = ListenAsSupervisor();
    unsetenv("NOTIFY_SOCKET");
    library.live(1, 2);
    library.timeout(nullptr);
    library.shift(nullptr, nullptr, 2);
    Expect(supervisor, "nothing");
    FinishChild("");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ipsla::test
