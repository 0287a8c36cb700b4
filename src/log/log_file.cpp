#include "log/log_file.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace ipsla {
namespace {

// A position that has to be asked for.
constexpr off_t kUnknown = -1;

// Lines to one write.
constexpr std::size_t kMaxParts = 256;

off_t Tell(int fd) {
  return lseek(fd, 0, SEEK_CUR);
}

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  // The name of a file that was removed or moved away cannot be opened, and must not be made anew.
  if (!in) return {};
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  std::string text(error ? 0 : size, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(in.gcount()));
  return text;
}

// Where the newer half of the lines begins; of an odd number the middle one belongs to it.
std::size_t NewerHalf(const std::string& text) {
  const bool ends_in_line = !text.empty() && text.back() == '\n';
  const auto lines =
      static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + (ends_in_line ? 0 : 1);
  std::size_t begin = 0;
  for (std::size_t i = 0; i < lines / 2; ++i) begin = text.find('\n', begin) + 1;
  return begin;
}

// Keeps the newer half, each line with its newline. The file is written anew in place: a descriptor
// that appends to it goes on at its new end, which is returned.
off_t KeepNewerHalf(const std::string& path, off_t position) {
  const std::string text = ReadWhole(path);
  if (text.empty()) return position;
  const std::size_t begin = NewerHalf(text);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data() + begin, static_cast<std::streamsize>(text.size() - begin));
  if (text.back() != '\n') out << '\n';
  return static_cast<off_t>(out.tellp());
}

// Whether all of it was written. `parts` are used up as far as they were.
bool WriteAll(int fd, std::span<iovec>* parts) {
  while (!parts->empty()) {
    const ssize_t count = writev(fd, parts->data(), static_cast<int>(parts->size()));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    auto left = static_cast<std::size_t>(count);
    while (!parts->empty() && left >= parts->front().iov_len) {
      left -= parts->front().iov_len;
      *parts = parts->subspan(1);
    }
    if (left == 0) continue;
    iovec& part = parts->front();
    part = {static_cast<char*>(part.iov_base) + left, part.iov_len - left};
  }
  return true;
}

}  // namespace

const LogFileCalls& SystemLogFileCalls() {
  static constexpr LogFileCalls kCalls{&Tell, &readlink};
  return kCalls;
}

std::unique_ptr<LogFile> LogFile::Open(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (fd < 0) return nullptr;
  lseek(fd, 0, SEEK_END);  // fails for what has no positions, as every later look at its position
  return std::unique_ptr<LogFile>(new LogFile(fd));
}

LogFile::~LogFile() {
  close(fd_);
}

void LogFile::Write(std::span<const LogLine> lines, const LogFileCalls& calls,
                    const Report& report) {
  off_t position = kUnknown;
  std::size_t begin = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (position == kUnknown || position > kMaxBytes) {
      // What comes before the check is in the file when it is made.
      Append(lines.subspan(begin, i - begin));
      begin = i;
      const std::string failure = CheckLogFileSize(calls, &position);
      if (!failure.empty()) report(failure);
    }
    if (position != kUnknown) position += static_cast<off_t>(lines[i].bytes.size());
  }
  Append(lines.subspan(begin));
}

// Returns the text of the failure when the file's length or its name cannot be found out, else an
// empty text.
std::string LogFile::CheckLogFileSize(const LogFileCalls& calls, off_t* position) const {
  *position = calls.tell(fd_);
  if (*position == kUnknown) return std::string("ftell failed: ") + std::strerror(errno);
  if (*position <= kMaxBytes) return {};
  std::array<char, 128> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(fd_);
  if (calls.read_link(link.c_str(), path.data(), path.size() - 1) == -1) {
    return std::string("readlink failed: ") + std::strerror(errno);
  }
  *position = KeepNewerHalf(path.data(), *position);
  return {};
}

void LogFile::Append(std::span<const LogLine> lines) {
  char newline = '\n';
  while (!lines.empty()) {
    const auto batch = lines.first(std::min(lines.size(), kMaxParts - 1));
    lines = lines.subspan(batch.size());
    std::array<iovec, kMaxParts> parts;
    std::size_t count = 0;
    if (is_torn_) parts.at(count++) = {&newline, 1};
    for (const LogLine& line : batch) parts.at(count++) = {line.bytes.data(), line.bytes.size()};
    std::span<iovec> left(parts.data(), count);
    if (WriteAll(fd_, &left)) {
      is_torn_ = false;
      continue;
    }
    // The rest is lost. What is left begins at a line, unless that line was written in part.
    if (left.size() <= batch.size()) {
      is_torn_ = left.front().iov_base != batch[batch.size() - left.size()].bytes.data();
    }
    return;
  }
}

}  // namespace ipsla
