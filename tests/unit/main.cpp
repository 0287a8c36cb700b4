// The unit tests run in network and mount namespaces of their own, so that no test touches the
// machine's logs, ports or interfaces: /var/log and /run are private, empty file systems and only a
// loopback interface exists.
//
// Only the calling thread moves into new namespaces, and the log's writer thread is there before
// main. So the program starts itself again once it is inside, and every thread begins there.

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
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return Failed("make mounts private");
  for (const char* directory : {"/var/log", "/run"}) {
    if (mount("tmpfs", directory, "tmpfs", 0, "mode=755") != 0) return Failed(directory);
  }
  if (mkdir("/run/netns", 0755) != 0) return Failed("/run/netns");
  return BringLoopbackUp();
}

// The process that made the private mount namespace, and that namespace, so that a variable left
// over from elsewhere is not believed.
constexpr const char* kMaker = "IPSLA_UNIT_TESTS_OF";
constexpr const char* kPlace = "IPSLA_UNIT_TESTS_IN";

std::string ProcessId() {
  return std::to_string(getpid());
}

std::string MountNamespace() {
  struct stat status {};
  if (stat("/proc/self/ns/mnt", &status) != 0) return "unknown";
  return std::to_string(status.st_ino);
}

bool Holds(const char* variable, const std::string& value) {
  const char* text = std::getenv(variable);
  return text != nullptr && text == value;
}

// Starts the program anew in namespaces of its own: threads that exist already stay in the old
// ones.
int RestartIsolated(char** argv) {
  if (!EnterPrivateNamespaces()) {
    std::fputs("the unit tests need root: they run in namespaces of their own\n", stderr);
    return 2;
  }
  setenv(kMaker, ProcessId().c_str(), 1);
  setenv(kPlace, MountNamespace().c_str(), 1);
  execv("/proc/self/exe", argv);
  std::perror("execv");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (!Holds(kPlace, MountNamespace())) return RestartIsolated(argv);
  // A child of a test (a death test): it shares its parent's logs, which the parent reads, but not
  // its ports.
  if (!Holds(kMaker, ProcessId()) && (unshare(CLONE_NEWNET) != 0 || !BringLoopbackUp())) return 2;
  testing::InitGoogleTest(&argc, argv);
  // A child process of a test starts from the beginning: a plain fork would leave it without the
  // log's writer thread.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}
