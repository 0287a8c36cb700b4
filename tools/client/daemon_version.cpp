#include "client/daemon_version.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string_view>

namespace ipsla::client {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{2};
constexpr std::size_t kMaxBanner = 4096;

bool IsTrusted(uid_t user) {
  return user == 0 || user == geteuid();
}

/// Whether running the program can do no more than its owner, who is trusted, could do anyway.
bool MayRun(const std::string& process, const std::string& program) {
  struct stat owner {};
  struct stat file {};
  if (stat(process.c_str(), &owner) != 0 || stat(program.c_str(), &file) != 0) {
    return false;
  }
  std::error_code error;
  const std::string name = std::filesystem::read_symlink(program, error).filename().string();
  return !error && (name == "ip-sla-sender" || name == "ip-sla-sender (deleted)") &&
         IsTrusted(owner.st_uid) && IsTrusted(file.st_uid) &&
         (file.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

/// The reading end of a pipe whose other end a child writes to.
class ChildOutput {
 public:
  ChildOutput() {
    if (pipe2(ends_.data(), O_CLOEXEC) != 0) {
      ends_ = {-1, -1};
    }
  }
  ~ChildOutput() {
    CloseEnd(0);
    CloseEnd(1);
  }
  ChildOutput(const ChildOutput&) = delete;
  ChildOutput& operator=(const ChildOutput&) = delete;

  /// The child's id, or -1.
  [[nodiscard]] pid_t Spawn(const std::string& program) {
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, ends_[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::string name = "ip-sla-sender";
    std::string option = "-v";
    const std::array<char*, 3> arguments{name.data(), option.data(), nullptr};
    pid_t child = -1;
    const int error =
        posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    CloseEnd(1);
    return error == 0 ? child : -1;
  }

  /// What comes until the other end is closed or the time is up.
  [[nodiscard]] std::string ReadUntil(Clock::time_point deadline) const {
    std::string text;
    while (text.size() < kMaxBanner) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd wait{ends_[0], POLLIN, 0};
      const int ready = left > 0 ? poll(&wait, 1, static_cast<int>(left)) : 0;
      if (ready < 0 && errno == EINTR) {
        continue;
      }
      std::array<char, 512> part{};
      const ssize_t size = ready > 0 ? read(ends_[0], part.data(), part.size()) : 0;
      if (size <= 0) {
        break;
      }
      text.append(part.data(), static_cast<std::size_t>(size));
    }
    return text;
  }

 private:
  void CloseEnd(std::size_t end) {
    if (ends_.at(end) >= 0) {
      close(ends_.at(end));
      ends_.at(end) = -1;
    }
  }

  std::array<int, 2> ends_{-1, -1};
};

}  // namespace

std::optional<std::string> VersionIn(const std::string& banner) {
  constexpr std::string_view kBefore = " version ";
  const std::size_t begin = banner.find(kBefore);
  if (begin == std::string::npos) {
    return std::nullopt;
  }
  const std::size_t first = begin + kBefore.size();
  const std::string version = banner.substr(first, banner.find_first_of(" \n", first) - first);
  return version.empty() ? std::nullopt : std::optional(version);
}

std::optional<std::string> VersionOf(const DaemonProcess& daemon) {
  const std::string process = "/proc/" + std::to_string(daemon.pid);
  const std::string program = process + "/exe";
  if (!MayRun(process, program)) {
    return std::nullopt;
  }
  ChildOutput output;
  const pid_t child = output.Spawn(program);
  if (child < 0) {
    return std::nullopt;
  }
  const std::string banner = output.ReadUntil(Clock::now() + kPatience);
  kill(child, SIGKILL);  // in case it is still there
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return VersionIn(banner);
}

}  // namespace ipsla::client
