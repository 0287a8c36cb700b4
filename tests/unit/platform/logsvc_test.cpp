// The stand-in for the system-log library, as the daemon loads it.

#include "platform/logsvc.h"

#include <dlfcn.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/paths.h"

namespace ipsla::test {
namespace {

// A system log of our own: /dev/log in a private /dev.
int ListenAsSystemLog() {
  if (unshare(CLONE_NEWNS) != 0 || mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) return -1;
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -1;
  const timeval patience{10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  return fd;
}

std::string ReceiveRecord(int fd) {
  std::array<char, 512> buffer{};
  const ssize_t length = recv(fd, buffer.data(), buffer.size(), 0);
  return length < 0 ? "nothing received"
                    : std::string(buffer.data(), static_cast<std::size_t>(length));
}

std::string FaultOf(const std::string& datagram, const std::string& priority,
                    const std::string& text) {
  const std::string program = " ipsla-unit-tests[" + std::to_string(getpid()) + "]: ";
  const bool is_right =
      datagram.starts_with(priority) && datagram.find(program + text) != std::string::npos;
  return is_right ? "" : "unexpected datagram: " + datagram;
}

TEST(LogServiceStandInTest, SendsToTheSystemLogWithTheGivenSeverity) {
  const auto run = [] {
    // Past the recording function of this program to the library's own.
    void* library = dlopen(ipsla::test::LibraryPath("liblogsvc.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) FinishChild(dlerror());
    const auto message =
        reinterpret_cast<decltype(&SYSLOG_message)>(dlsym(library, "SYSLOG_message"));
    const auto close_log =
        reinterpret_cast<decltype(&SYSLOG_close)>(dlsym(library, "SYSLOG_close"));
    if (message == nullptr || message == &SYSLOG_message || close_log == nullptr)
      FinishChild("symbols");
    const int system_log = ListenAsSystemLog();
    if (system_log < 0) FinishChild("no /dev/log");

    message(59, 1, 7, "%%%s-%s: %d", "IP_SLA", "D", 42);
    std::string fault = FaultOf(ReceiveRecord(system_log), "<15>", "%IP_SLA-D: 42");
    message(59, 0, 3, "%s", "broken");
    if (fault.empty()) fault = FaultOf(ReceiveRecord(system_log), "<11>", "broken");
    close_log();
    message(59, 1, 7, "%s", "after closing");
    if (fault.empty()) fault = FaultOf(ReceiveRecord(system_log), "<15>", "after closing");
    FinishChild(fault);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ipsla::test
