#include "ctl/namespace_thread.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace ipsla::ctl {
namespace {

/// Moves the calling thread for the rest of its life; why it could not.
std::optional<std::string> EnterNamespace(const std::string& file) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return file + ": " + std::strerror(errno);
  }
  std::optional<std::string> fault;
  if (setns(fd, CLONE_NEWNET) != 0) {
    fault = file + ": " + std::strerror(errno);
  }
  close(fd);
  return fault;
}

}  // namespace

void OnOwnThread(const std::function<void()>& work) {
  std::thread(work).join();
}

std::optional<std::string> InNamespace(const std::string& file, const std::function<void()>& work) {
  std::optional<std::string> fault;
  OnOwnThread([&] {
    if (!file.empty()) {
      fault = EnterNamespace(file);
    }
    if (!fault) {
      work();
    }
  });
  return fault;
}

}  // namespace ipsla::ctl
