#include "log/log_file.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

namespace ipsla {
namespace {

// Keeps the newer half of the lines; of an odd number the middle one too. The file is written anew
// in place: the append-mode stream stays open on it and goes on at its new end.
void KeepNewerHalf(const std::string& path) {
  std::vector<std::string> lines;
  {
    std::ifstream in(path);
    // The name of a file that was removed or moved away cannot be opened, and must not be created
    // either.
    if (!in) return;
    for (std::string line; std::getline(in, line);) lines.push_back(std::move(line));
  }
  std::ofstream out(path, std::ios::trunc);
  for (std::size_t i = lines.size() / 2; i < lines.size(); ++i) out << lines[i] << '\n';
}

}  // namespace

const LogFileCalls& SystemLogFileCalls() {
  static constexpr LogFileCalls kCalls{&std::ftell, &readlink};
  return kCalls;
}

std::shared_ptr<LogFile> LogFile::Open(const std::string& path) {
  FILE* stream = std::fopen(path.c_str(), "ae");
  if (stream == nullptr) return nullptr;
  return std::shared_ptr<LogFile>(new LogFile(stream));
}

std::string LogFile::CheckLogFileSize(const LogFileCalls& calls) {
  const std::lock_guard lock(mutex_);
  if (!stream_) return {};
  const long position = calls.tell(stream_.get());
  if (position == -1) return std::string("ftell failed: ") + std::strerror(errno);
  if (position <= kMaxBytes) return {};
  std::array<char, 128> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(fileno(stream_.get()));
  if (calls.read_link(link.c_str(), path.data(), path.size() - 1) == -1) {
    return std::string("readlink failed: ") + std::strerror(errno);
  }
  KeepNewerHalf(path.data());
  return {};
}

void LogFile::Append(const std::string& line) {
  const std::lock_guard lock(mutex_);
  if (!stream_) return;
  std::fputs(line.c_str(), stream_.get());
  std::fflush(stream_.get());
}

void LogFile::Close() {
  const std::lock_guard lock(mutex_);
  stream_.reset();
}

}  // namespace ipsla
