#include "exporter/process_info.h"

#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>

namespace ipsla::exporter {
namespace {

/// Fields of /proc/self/stat behind the command's name, counted from 0: the "state" of proc(5).
enum StatField : std::size_t { kUserTime = 11, kSystemTime = 12, kStart = 19, kStatFields = 22 };
enum MemoryField : std::size_t { kVirtual = 20, kResident = 21 };

std::optional<std::array<double, kStatFields>> ReadStat() {
  std::ifstream file("/proc/self/stat");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  // The name may hold blanks and brackets; nothing behind it does.
  const std::size_t name_end = text.rfind(')');
  if (name_end == std::string::npos || name_end + 2 > text.size()) {
    return std::nullopt;
  }
  std::istringstream fields(text.substr(name_end + 2));
  std::array<double, kStatFields> values{};
  std::string state;
  fields >> state;
  for (std::size_t field = 1; field < kStatFields; ++field) {
    if (!(fields >> values[field])) {
      return std::nullopt;
    }
  }
  return values;
}

/// Seconds since the epoch.
std::optional<double> BootTime() {
  std::ifstream file("/proc/stat");
  std::string word;
  while (file >> word) {
    double boot = 0;
    if (word == "btime" && file >> boot) {
      return boot;
    }
  }
  return std::nullopt;
}

std::optional<double> OpenDescriptors() {
  std::error_code error;
  std::filesystem::directory_iterator entries("/proc/self/fd", error);
  if (error) {
    return std::nullopt;
  }
  // One of them is the directory's own.
  return static_cast<double>(std::distance(entries, std::filesystem::directory_iterator{})) - 1;
}

}  // namespace

ProcessInfo ReadProcessInfo() {
  ProcessInfo info;
  if (const auto stat = ReadStat()) {
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    info.cpu_seconds = ((*stat)[kUserTime] + (*stat)[kSystemTime]) / ticks;
    info.virtual_bytes = (*stat)[kVirtual];
    info.resident_bytes = (*stat)[kResident] * static_cast<double>(sysconf(_SC_PAGESIZE));
    if (const auto boot = BootTime()) {
      info.start_time = *boot + (*stat)[kStart] / ticks;
    }
  }
  info.open_fds = OpenDescriptors();
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    info.max_fds = static_cast<double>(limit.rlim_cur);
  }
  return info;
}

}  // namespace ipsla::exporter
