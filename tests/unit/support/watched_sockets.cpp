#include "support/watched_sockets.h"

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace ipsla::test {
namespace {

bool IsSocket(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
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
