// One open log file: appends lines and keeps the file short.

#ifndef IPSLA_LOG_LOG_FILE_H_
#define IPSLA_LOG_LOG_FILE_H_

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "log/line_queue.h"

namespace ipsla {

/// The two calls of the size check that can fail, so that a test can make them fail.
struct LogFileCalls {
  off_t (*tell)(int fd);  ///< the position of a descriptor, -1 and errno when it has none
  ssize_t (*read_link)(const char* path, char* buffer, std::size_t size);
};

/// lseek(2) and readlink(2).
[[nodiscard]] const LogFileCalls& SystemLogFileCalls();

/// A file opened for appending, closed when it is destroyed. Threads: one at a time.
class LogFile {
 public:
  /// A file longer than this is cut before the next line is written.
  static constexpr off_t kMaxBytes = 1048576;

  /// What is done with the text of a failed size check before the line that it is about.
  using Report = std::function<void(const std::string& failure)>;

  /// Opens `path` for appending, made with mode 0600 (what the daemon dumps into it has keys).
  /// Null when that fails.
  [[nodiscard]] static std::unique_ptr<LogFile> Open(const std::string& path);

  /// Closes it.
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// Appends `lines`, with one write(2) for all between two cuts. Each line is preceded by the size
  /// check: a file longer than kMaxBytes is cut to the newer half of its lines. A write that fails
  /// is not reported; what follows it begins on a line of its own.
  void Write(std::span<const LogLine> lines, const LogFileCalls& calls, const Report& report);

 private:
  explicit LogFile(int fd) : fd_(fd) {}

  // Steps of Write.
  [[nodiscard]] std::string CheckLogFileSize(const LogFileCalls& calls, off_t* position) const;
  void Append(std::span<const LogLine> lines);

  // Open for appending.
  const int fd_;
  bool is_torn_ = false;  // the last write ended within a line
};

}  // namespace ipsla

#endif  // IPSLA_LOG_LOG_FILE_H_
