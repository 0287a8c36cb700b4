#include "client/daemon_process.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <system_error>

#include "client/file_text.h"

namespace ipsla::client {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kProgram = "ip-sla-sender";
constexpr std::size_t kMaxProcBytes = std::size_t{4} << 20;

std::string Read(const std::string& path) {
  return ReadRegularFile(path, kMaxProcBytes, nullptr).value_or("");
}

/// Empty when it may not be read.
std::string LinkTarget(const std::string& path) {
  std::error_code error;
  const fs::path target = fs::read_symlink(path, error);
  return error ? "" : target.string();
}

/// The command line of a process, which is NUL-terminated words.
std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = std::min(text.find('\0', begin), text.size());
    words.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return words;
}

/// The last argument of an option, "-f FILE" or "-fFILE", as getopt(3) takes it.
std::string OptionOf(const std::vector<std::string>& words, const std::string& option) {
  std::string value;
  for (std::size_t index = 1; index < words.size() && words[index] != "--"; ++index) {
    const std::string& word = words[index];
    const bool takes_next = word == "-f" || word == "-k";
    if (word.starts_with(option) && word.size() > option.size()) {
      value = word.substr(option.size());
    }
    if (takes_next && index + 1 < words.size()) {
      ++index;
      value = word == option ? words[index] : value;
    }
  }
  return value;
}

/// From the boot of the machine; field 22 of "stat", behind the name in its parentheses.
std::optional<std::int64_t> StartedOf(const std::string& stat) {
  constexpr int kFieldsBetween = 19;
  const std::size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos) {
    return std::nullopt;
  }
  std::istringstream fields(stat.substr(name_end + 1));
  std::string skipped;
  for (int field = 0; field < kFieldsBetween; ++field) {
    fields >> skipped;
  }
  std::int64_t ticks = 0;
  timespec since_boot{};
  if (!(fields >> ticks) || clock_gettime(CLOCK_BOOTTIME, &since_boot) != 0) {
    return std::nullopt;
  }
  const std::int64_t seconds_ago = since_boot.tv_sec - ticks / sysconf(_SC_CLK_TCK);
  return static_cast<std::int64_t>(std::time(nullptr)) - seconds_ago;
}

/// The socket bound to the port on the loopback address or on all, as "socket:[INODE]".
std::string SocketOnPort(const std::string& table, std::uint16_t port) {
  constexpr int kFieldsBetween = 7;
  std::istringstream lines(table);
  std::string line;
  std::getline(lines, line);  // the header
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string slot;
    std::string local;
    fields >> slot >> local;
    std::uint32_t address = 0;
    std::uint32_t bound_port = 0;
    if (std::sscanf(local.c_str(), "%8x:%4x", &address, &bound_port) != 2 || bound_port != port) {
      continue;
    }
    std::string inode;
    for (int field = 0; field <= kFieldsBetween; ++field) {
      fields >> inode;
    }
    return "socket:[" + inode + "]";
  }
  return "";
}

std::optional<bool> HasSocket(const std::string& process, const std::string& socket) {
  std::error_code error;
  fs::directory_iterator entry(process + "/fd", error);
  if (error) {
    return std::nullopt;
  }
  while (entry != fs::directory_iterator()) {
    if (LinkTarget(entry->path().string()) == socket) {
      return true;
    }
    entry.increment(error);
    if (error) {
      break;
    }
  }
  return false;
}

std::string Absolute(const std::string& file, const std::string& directory) {
  return file.empty() || file.front() == '/' || directory.empty() ? file : directory + "/" + file;
}

/// Two namespace links tell apart only when both may be read.
bool AreDifferent(const std::string& one, const std::string& other) {
  return !one.empty() && !other.empty() && one != other;
}

std::optional<DaemonProcess> ReadProcess(int pid, const std::string& proc) {
  const std::string process = proc + "/" + std::to_string(pid);
  if (Read(process + "/comm") != std::string(kProgram) + "\n") {
    return std::nullopt;
  }
  if (AreDifferent(LinkTarget(process + "/ns/net"), LinkTarget(proc + "/self/ns/net"))) {
    return std::nullopt;
  }
  const std::vector<std::string> words = Words(Read(process + "/cmdline"));
  if (words.empty()) {
    return std::nullopt;  // it has ended, its parent has not noticed yet
  }
  DaemonProcess daemon{.pid = pid, .started = StartedOf(Read(process + "/stat"))};
  const std::string directory = LinkTarget(process + "/cwd");
  daemon.tasks_file = Absolute(OptionOf(words, "-f"), directory);
  daemon.keychain_file = Absolute(OptionOf(words, "-k"), directory);
  if (AreDifferent(LinkTarget(process + "/ns/mnt"), LinkTarget(proc + "/self/ns/mnt"))) {
    daemon.root = process + "/root";
  }
  return daemon;
}

std::vector<int> ProcessIds(const std::string& proc) {
  std::vector<int> pids;
  std::error_code error;
  fs::directory_iterator entry(proc, error);
  while (!error && entry != fs::directory_iterator()) {
    const std::string name = entry->path().filename().string();
    int pid = 0;
    const auto [end, fault] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (fault == std::errc{} && end == name.data() + name.size()) {
      pids.push_back(pid);
    }
    entry.increment(error);
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}

std::optional<TaskPlans> NoPlans(std::string* error, const std::string& text) {
  if (error != nullptr) {
    *error = text;
  }
  return std::nullopt;
}

}  // namespace

std::vector<DaemonProcess> FindDaemons(std::uint16_t port, const std::string& proc) {
  std::vector<DaemonProcess> daemons;
  const std::string socket = SocketOnPort(Read(proc + "/self/net/udp"), port);
  for (const int pid : ProcessIds(proc)) {
    if (auto daemon = ReadProcess(pid, proc)) {
      daemon->has_port = HasSocket(proc + "/" + std::to_string(pid), socket);
      daemons.push_back(std::move(*daemon));
    }
  }
  return daemons;
}

const DaemonProcess* AnsweringDaemon(const std::vector<DaemonProcess>& daemons) {
  const auto owner = std::find_if(daemons.begin(), daemons.end(), [](const DaemonProcess& daemon) {
    return daemon.has_port.value_or(false);
  });
  if (owner != daemons.end()) {
    return &*owner;
  }
  return daemons.size() == 1 && !daemons.front().has_port ? &daemons.front() : nullptr;
}

std::optional<TaskPlans> ReadPlansFile(const std::string& path, std::string* error) {
  std::string fault;
  const auto text = ReadRegularFile(path, kMaxConfigBytes, &fault);
  if (!text) {
    return NoPlans(error, path + ": " + fault);
  }
  auto plans = ReadTaskPlans(*text);
  return plans ? plans : NoPlans(error, path + ": it is no tasks file");
}

std::optional<TaskPlans> ReadDaemonPlans(const DaemonProcess* daemon, std::string* error) {
  if (daemon == nullptr || daemon->tasks_file.empty()) {
    return NoPlans(error, "the daemon's tasks file is not known");
  }
  return ReadPlansFile(daemon->Reachable(daemon->tasks_file), error);
}

}  // namespace ipsla::client
