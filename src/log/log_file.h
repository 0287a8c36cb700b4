// One open log file: appends lines and keeps the file short.

#ifndef IPSLA_LOG_LOG_FILE_H_
#define IPSLA_LOG_LOG_FILE_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace ipsla {

/// The two calls of the size check that can fail, so that a test can make them fail.
struct LogFileCalls {
  long (*tell)(FILE* stream);
  ssize_t (*read_link)(const char* path, char* buffer, std::size_t size);
};

/// ftell(3) and readlink(2).
[[nodiscard]] const LogFileCalls& SystemLogFileCalls();

/// A stream opened for appending. Threads: any; one lock per file.
class LogFile {
 public:
  /// A file longer than this is cut before the next line is written.
  static constexpr long kMaxBytes = 1048576;

  /// Opens `path` for appending. Null when that fails.
  [[nodiscard]] static std::shared_ptr<LogFile> Open(const std::string& path);

  /// Cuts the file to the newer half of its lines when it is longer than kMaxBytes.
  /// Returns the text of the failure when its length or its name cannot be found out, else an empty
  /// text. Does nothing after Close().
  [[nodiscard]] std::string CheckLogFileSize(const LogFileCalls& calls);

  /// Appends `line`, which ends with its newline, and flushes it to the kernel. Does nothing after
  /// Close().
  void Append(const std::string& line);

  /// Waits for a line being written and closes the file. May be called again.
  void Close();

 private:
  struct Closer {
    void operator()(FILE* stream) const { std::fclose(stream); }
  };

  explicit LogFile(FILE* stream) : stream_(stream) {}

  std::mutex mutex_;
  std::unique_ptr<FILE, Closer> stream_;  // guarded by mutex_
};

}  // namespace ipsla

#endif  // IPSLA_LOG_LOG_FILE_H_
