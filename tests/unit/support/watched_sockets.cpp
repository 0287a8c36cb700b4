#include "support/watched_sockets.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace ipsla::test {
namespace {

// By its link, not by fstat(2): the descriptor is another thread's, which may close it.
bool IsSocket(int fd) {
  std::error_code error;
  const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
  return target.string().starts_with("socket:");
}

}  // namespace

std::size_t WatchedSockets() {
  std::size_t found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(entry.path());
    for (std::string line; std::getline(info, line);) {
      int fd = -1;
      if (std::sscanf(line.c_str(), "tfd: %d", &fd) == 1 && IsSocket(fd)) ++found;
    }
  }
  return found;
}

}  // namespace ipsla::test
