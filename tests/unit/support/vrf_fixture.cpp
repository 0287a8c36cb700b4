#include "support/vrf_fixture.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <thread>

namespace ipsla::test {
namespace {

constexpr const char* kOwnNamespace = "/proc/thread-self/ns/net";

std::string PathOf(const std::string& name) {
  return "/run/netns/" + name;
}

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Runs `body` on a fresh thread, so that a change of namespace ends with it.
void RunOnThread(const std::function<void()>& body) {
  std::exception_ptr failure;
  std::thread thread([&] {
    try {
      body();
    } catch (...) {
      failure = std::current_exception();
    }
  });
  thread.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace

ino_t CurrentNetworkNamespace() {
  struct stat status {};
  if (stat(kOwnNamespace, &status) != 0) Fail(kOwnNamespace);
  return status.st_ino;
}

void RunIp(const std::vector<std::string>& arguments) {
  std::string program = "ip";
  std::string command = program;
  std::vector<std::string> words = arguments;
  std::vector<char*> argv = {program.data()};
  for (std::string& word : words) {
    argv.push_back(word.data());
    command += " " + word;
  }
  argv.push_back(nullptr);
  pid_t child = 0;
  errno = posix_spawnp(&child, program.c_str(), nullptr, nullptr, argv.data(), environ);
  if (errno != 0) Fail(command);
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) Fail(command);
  }
  if (status != 0) throw std::runtime_error(command + ": wait status " + std::to_string(status));
}

VrfFixture::VrfFixture() {
  Register("1");
}

VrfFixture::~VrfFixture() {
  try {
    for (const std::string& interface : interfaces_) {
      try {
        RunIp({"link", "delete", interface});
      } catch (const std::exception&) {
        // A link whose far namespace was taken away is gone already, or goes at any moment.
        if (if_nametoindex(interface.c_str()) != 0) throw;
      }
    }
    while (!names_.empty()) Unregister(names_.back());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "VRFs of the test left behind: %s\n", error.what());
  }
}

void VrfFixture::Register(const std::string& name) {
  const int fd = open(PathOf(name).c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444);
  if (fd < 0) Fail(PathOf(name));
  close(fd);
  if (mount(kOwnNamespace, PathOf(name).c_str(), "none", MS_BIND, nullptr) != 0) {
    const int error = errno;
    unlink(PathOf(name).c_str());
    errno = error;
    Fail("mount " + PathOf(name));
  }
  names_.push_back(name);
}

void VrfFixture::AddVrf(const std::string& name) {
  RunOnThread([&] {
    if (unshare(CLONE_NEWNET) != 0) Fail("unshare");
    Register(name);
  });
  RunIp({"-n", name, "link", "set", "lo", "up"});
}

void VrfFixture::AddLink(const std::string& vrf, const Interface& near, const Interface& far) {
  RunIp({"link", "add", "name", near.name, "type", "veth", "peer", "name", far.name, "netns", vrf});
  interfaces_.push_back(near.name);
  if (!near.address.empty()) RunIp({"address", "add", near.address, "dev", near.name});
  if (!far.address.empty()) RunIp({"-n", vrf, "address", "add", far.address, "dev", far.name});
  RunIp({"link", "set", near.name, "up"});
  RunIp({"-n", vrf, "link", "set", far.name, "up"});
}

void VrfFixture::RunInVrf(const std::string& vrf, const std::function<void()>& body) {
  RunOnThread([&] {
    const int fd = open(PathOf(vrf).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) Fail(PathOf(vrf));
    const int result = setns(fd, CLONE_NEWNET);
    const int error = errno;
    close(fd);
    errno = error;
    if (result != 0) Fail("setns " + PathOf(vrf));
    body();
  });
}

void VrfFixture::Unregister(const std::string& name) {
  if (umount2(PathOf(name).c_str(), MNT_DETACH) != 0) Fail("umount " + PathOf(name));
  if (unlink(PathOf(name).c_str()) != 0) Fail(PathOf(name));
  std::erase(names_, std::string(name));  // a copy: `name` may be the element itself
}

}  // namespace ipsla::test
