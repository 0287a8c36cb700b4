#include "env/namespace_scope.h"

#include <fcntl.h>
#include <sched.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

#include "env/network_namespace.h"
#include "log/log.h"

namespace ipsla {
namespace {

// Of the calling thread, not of the process: a worker may be inside a VRF while the main thread is
// not.
constexpr const char* kOwnNamespace = "/proc/thread-self/ns/net";

// What never fails with a valid descriptor while the process has its rights.
void ReturnThrough(const Descriptor& origin) {
  if (setns(origin.Get(), CLONE_NEWNET) != 0) {
    LOG_DEBUG(0, "return to the network namespace before failed: %s", std::strerror(errno));
  }
}

}  // namespace

NetworkNamespaceScope::NetworkNamespaceScope(const std::string& name) {
  if (name.empty()) return;
  Descriptor origin(open(kOwnNamespace, O_RDONLY | O_CLOEXEC));
  // kept-behaviours.md#some-reasons-end-in-m
  if (!origin) throw std::runtime_error("SetNetworkNamespace" + name + "failed: open() failed: %m");
  SetNetworkNamespace(name);
  origin_ = std::move(origin);
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
  const Descriptor origin = std::move(origin_);
  if (!origin) return;
  try {
    SetNetworkNamespace(kDefaultVrf);
  } catch (...) {
    ReturnThrough(origin);
    throw;
  }
}

}  // namespace ipsla
