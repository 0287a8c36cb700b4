#include "env/network_namespace.h"

#include <fcntl.h>
#include <sched.h>

#include <stdexcept>

#include "env/descriptor.h"

namespace ipsla {
namespace {

// kept-behaviours.md#some-reasons-end-in-m
[[noreturn]] void Fail(const std::string& name, const char* what) {
  throw std::runtime_error("SetNetworkNamespace" + name + "failed: " + what);
}

}  // namespace

std::string VrfKey(const std::string& vrf) {
  return vrf.empty() ? kDefaultVrf : vrf;
}

void SetNetworkNamespace(const std::string& name) {
  if (name.empty()) Fail(name, "invalid network namespace");
  const Descriptor fd(open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) Fail(name, "open() failed: %m");
  if (setns(fd.Get(), CLONE_NEWNET) != 0) Fail(name, "syscall() failed: %m");
}

}  // namespace ipsla
