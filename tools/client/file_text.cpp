#include "client/file_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ipsla::client {
namespace {

class OpenFile {
 public:
  /// Does not wait for the writer of a FIFO.
  explicit OpenFile(const std::string& path)
      : fd_(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {}
  ~OpenFile() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  [[nodiscard]] int Fd() const { return fd_; }

  /// Its size, or nothing with errno set.
  [[nodiscard]] std::optional<off_t> RegularSize() const {
    struct stat status {};
    if (fd_ < 0 || fstat(fd_, &status) != 0) {
      return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
      errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
      return std::nullopt;
    }
    return status.st_size;
  }

 private:
  int fd_;
};

/// Reads on to the end of the file, or until `text` is longer than `limit`. False with errno set.
bool ReadOn(int fd, std::size_t limit, std::string* text) {
  constexpr std::size_t kStep = std::size_t{64} << 10;
  while (text->size() <= limit) {
    const std::size_t before = text->size();
    text->resize(before + kStep);
    const ssize_t size = read(fd, text->data() + before, kStep);
    text->resize(before + static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    if (size == 0) {
      return true;
    }
    if (size < 0 && errno != EINTR) {
      return false;
    }
  }
  return true;
}

std::optional<std::string> Fault(std::string* error, const char* text) {
  if (error != nullptr) {
    *error = text;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> ReadRegularFile(const std::string& path, std::size_t limit,
                                           std::string* error) {
  const OpenFile file(path);
  if (!file.RegularSize()) {
    return Fault(error, errno == EINVAL ? "it is no regular file" : std::strerror(errno));
  }
  std::string text;
  if (!ReadOn(file.Fd(), limit, &text)) {
    return Fault(error, std::strerror(errno));
  }
  if (text.size() > limit) {
    return Fault(error, "it is too long");
  }
  return text;
}

std::optional<std::string> ReadFileEnd(const std::string& path, std::size_t limit) {
  const OpenFile file(path);
  const auto size = file.RegularSize();
  if (!size) {
    return std::nullopt;
  }
  const auto most = static_cast<off_t>(limit);
  if (*size > most && lseek(file.Fd(), *size - most, SEEK_SET) < 0) {
    return std::nullopt;
  }
  std::string text;
  // A file that grows meanwhile ends a little later.
  return ReadOn(file.Fd(), limit, &text) ? std::optional(std::move(text)) : std::nullopt;
}

}  // namespace ipsla::client
