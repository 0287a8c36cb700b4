// The unit tests run in network and mount namespaces of their own, so that no test touches the
// machine's logs, ports or interfaces: /var/log and /run are private, empty file systems and only a
// loopback interface exists.

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "log/log.h"

namespace {

bool Failed(const char* what) {
  std::perror(what);
  return false;
}

bool BringLoopbackUp() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Failed("socket");
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", sizeof request.ifr_name - 1);
  bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0;
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  up = up && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  close(fd);
  return up || Failed("bring lo up");
}

bool EnterPrivateNamespaces() {
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return Failed("unshare");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return Failed("make mounts private");
  }
  for (const char* directory : {"/var/log", "/run"}) {
    if (mount("tmpfs", directory, "tmpfs", 0, "mode=755") != 0) return Failed(directory);
  }
  if (mkdir("/run/netns", 0755) != 0) return Failed("/run/netns");
  return BringLoopbackUp();
}

// The mount namespace of the test program, for the children of its tests. The number tells a
// variable that was left over from elsewhere.
constexpr const char* kPlace = "IPSLA_UNIT_TESTS_IN";

std::string MountNamespace() {
  struct stat status {};
  if (stat("/proc/self/ns/mnt", &status) != 0) return "unknown";
  return std::to_string(status.st_ino);
}

// A child of a test (a death test) shares its parent's logs, which the parent reads, but not its
// ports.
bool EnterNamespaces() {
  const char* place = std::getenv(kPlace);
  if (place != nullptr && place == MountNamespace()) {
    return (unshare(CLONE_NEWNET) == 0 || Failed("unshare")) && BringLoopbackUp();
  }
  if (!EnterPrivateNamespaces()) return false;
  setenv(kPlace, MountNamespace().c_str(), 1);
  return true;
}

// The log of a test ends with it, so that its thread looks at nothing that the next test changes.
class LogEnd : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& /*test*/) override { ipsla::ShutdownLog(); }
};

}  // namespace

int main(int argc, char** argv) {
  if (!EnterNamespaces()) {
    std::fputs("the unit tests need root: they run in namespaces of their own\n", stderr);
    return 2;
  }
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new LogEnd);
  // A child process of a test starts from the beginning: a plain fork would leave it without the
  // threads that the test has started.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}
