#include "ctl/config_input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

namespace ipsla::ctl {
namespace {

/// Closes what it opened; standard input stays.
class InputDescriptor {
 public:
  explicit InputDescriptor(const std::string& name)
      : owned_(name != kStandardInput),
        // Opening a pipe must not wait for its writer.
        fd_(owned_ ? open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)
                   : STDIN_FILENO) {}
  ~InputDescriptor() {
    if (owned_ && fd_ >= 0) {
      close(fd_);
    }
  }
  InputDescriptor(const InputDescriptor&) = delete;
  InputDescriptor& operator=(const InputDescriptor&) = delete;

  [[nodiscard]] int Get() const { return fd_; }

 private:
  bool owned_;
  int fd_;
};

std::string CannotRead() {
  return fmt::format("the file cannot be read: {}", std::strerror(errno));
}

/// Waits until there is something to read; why there is nothing.
std::optional<std::string> AwaitInput(int fd, std::chrono::milliseconds patience) {
  pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
  const int ready = poll(&waiting, 1, static_cast<int>(patience.count()));
  if (ready < 0 && errno != EINTR) {
    return CannotRead();
  }
  if (ready == 0) {
    return fmt::format("the file cannot be read: nothing came from it for {} ms", patience.count());
  }
  return std::nullopt;
}

/// Reads to the end or to the first fault.
std::optional<std::string> ReadToEnd(int fd, std::chrono::milliseconds patience,
                                     std::string* text) {
  std::array<char, 65536> piece{};
  while (true) {
    const ssize_t bytes = read(fd, piece.data(), piece.size());
    if (bytes == 0) {
      return std::nullopt;
    }
    if (bytes > 0) {
      text->append(piece.data(), static_cast<std::size_t>(bytes));
      if (text->size() > kMaxConfigBytes) {
        return fmt::format("the file is longer than {} MiB", kMaxConfigBytes >> 20U);
      }
    } else if (errno == EAGAIN) {
      if (auto fault = AwaitInput(fd, patience)) {
        return fault;
      }
    } else if (errno != EINTR) {
      return CannotRead();
    }
  }
}

}  // namespace

ConfigInput ReadConfigInput(const std::string& name, std::chrono::milliseconds patience) {
  ConfigInput input;
  if (name.empty()) {
    input.fault = "the file name is empty";
    return input;
  }
  const InputDescriptor file(name);
  struct stat status {};
  if (file.Get() < 0 || fstat(file.Get(), &status) != 0) {
    input.error = errno;
    input.fault = CannotRead();
    return input;
  }
  input.fault = ReadToEnd(file.Get(), patience, &input.text);
  if (name == kStandardInput) {
    return input;
  }
  if (S_ISREG(status.st_mode)) {
    input.mode = status.st_mode & ~static_cast<mode_t>(S_IFMT);
  } else if (S_ISFIFO(status.st_mode) && !input.fault && input.text.empty()) {
    input.fault = "the file is a pipe into which nobody writes";
  }
  return input;
}

}  // namespace ipsla::ctl
