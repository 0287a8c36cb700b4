#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

#include "env/environment.h"
#include "log/log.h"

namespace ipsla {
namespace {

// Of the calling thread, not of the process: a worker may be inside a VRF while the main thread is
// not.
constexpr const char* kOwnNamespace = "/proc/thread-self/ns/net";

// The pieces are joined without separators and "%m" stays as it is, deliberately: the text is part
// of the interface.
[[noreturn]] void Fail(const std::string& name, const char* what) {
  throw std::runtime_error("SetNetworkNamespace" + name + "failed: " + what);
}

// What never fails with a valid descriptor while the process has its rights.
void ReturnThrough(int origin) {
  if (setns(origin, CLONE_NEWNET) != 0) {
    LOG_DEBUG(0, "return to the network namespace before failed: %s", std::strerror(errno));
  }
}

}  // namespace

void SetNetworkNamespace(const std::string& name) {
  if (name.empty()) Fail(name, "invalid network namespace");
  const int fd = open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail(name, "open() failed: %m");
  const int result = setns(fd, CLONE_NEWNET);
  close(fd);
  if (result != 0) Fail(name, "syscall() failed: %m");
}

NetworkNamespaceScope::NetworkNamespaceScope(const std::string& name) {
  if (name.empty()) return;
  origin_ = open(kOwnNamespace, O_RDONLY | O_CLOEXEC);
  if (origin_ < 0) Fail(name, "open() failed: %m");
  try {
    SetNetworkNamespace(name);
  } catch (...) {
    close(std::exchange(origin_, -1));
    throw;
  }
}

NetworkNamespaceScope::~NetworkNamespaceScope() {
  try {
    Leave();
  } catch (const std::exception&) {
    // The thread is back all the same, and whatever ended the scope early is already under way to
    // be reported.
  }
}

void NetworkNamespaceScope::Leave() {
  const int origin = std::exchange(origin_, -1);
  if (origin < 0) return;
  try {
    SetNetworkNamespace(kDefaultVrf);
  } catch (...) {
    ReturnThrough(origin);
    close(origin);
    throw;
  }
  close(origin);
}

}  // namespace ipsla
