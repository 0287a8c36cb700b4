// The unit tests run in network and mount namespaces of their own, so that no test touches the machine's logs, ports or
// interfaces: /var/log/ip-sla and /run/netns are private, empty file systems and only a loopback interface exists.

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

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
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return Failed("make mounts private");
  for (const char* directory : {"/var/log", "/run"}) {
    if (mount("tmpfs", directory, "tmpfs", 0, "mode=755") != 0) return Failed(directory);
  }
  if (mkdir("/run/netns", 0755) != 0) return Failed("/run/netns");
  return BringLoopbackUp();
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!EnterPrivateNamespaces()) {
    std::fputs("the unit tests need root: they run in namespaces of their own\n", stderr);
    return 2;
  }
  return RUN_ALL_TESTS();
}
