#include "support/process_facts.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "support/vrf_fixture.h"

namespace ipsla::test {
namespace {

constexpr const char* kDescriptors = "/proc/self/fd";

// The open descriptors by inode.
std::map<ino_t, int> DescriptorsByInode() {
  std::map<ino_t, int> found;
  for (const auto& entry : std::filesystem::directory_iterator(kDescriptors)) {
    struct stat status {};
    if (stat(entry.path().c_str(), &status) == 0) {
      found[status.st_ino] = std::stoi(entry.path().filename());
    }
  }
  return found;
}

// A thread that was joined may stand in the list for another moment: the kernel tells of its end
// before it takes it from there.
bool HasEnded(const std::filesystem::path& thread) {
  constexpr unsigned kExiting = 4;  // the kernel's PF_EXITING
  std::ifstream file(thread / "stat");
  std::string line;
  std::getline(file, line);
  std::istringstream fields(line.substr(line.rfind(')') + 1));
  std::string skipped;
  for (int field = 3; field < 9; ++field) fields >> skipped;
  unsigned flags = kExiting;
  fields >> flags;
  return !fields || (flags & kExiting) != 0;
}

}  // namespace

std::size_t OpenDescriptors() {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(kDescriptors),
                                                std::filesystem::directory_iterator()));
}

std::size_t ThreadsOn(const std::string& cpus) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    if (HasEnded(entry.path())) continue;
    std::ifstream status(entry.path() / "status");
    for (std::string line; std::getline(status, line);) {
      if (line == "Cpus_allowed_list:\t" + cpus) ++count;
    }
  }
  return count;
}

int DescriptorOf(ino_t inode) {
  const auto found = DescriptorsByInode();
  const auto entry = found.find(inode);
  return entry == found.end() ? -1 : entry->second;
}

std::set<ino_t> RoutingSocketsIn(const std::string& vrf) {
  std::set<ino_t> found;
  const auto own = DescriptorsByInode();
  const auto read = [&] {
    std::ifstream table("/proc/thread-self/net/netlink");
    std::string line;
    std::getline(table, line);  // the heading
    while (std::getline(table, line)) {
      std::istringstream words(line);
      const std::vector<std::string> columns{std::istream_iterator<std::string>(words), {}};
      const ino_t inode = std::stoul(columns.back());
      if (columns.at(1) == "0" && own.contains(inode)) found.insert(inode);
    }
  };
  if (vrf.empty()) {
    read();
  } else {
    VrfFixture::RunInVrf(vrf, read);
  }
  return found;
}

}  // namespace ipsla::test
