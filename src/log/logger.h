// The file side of the log: one text file for the daemon and one per test, written by a thread of
// its own.

#ifndef IPSLA_LOG_LOGGER_H_
#define IPSLA_LOG_LOGGER_H_

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

namespace ipsla {

struct LogFileCalls;

/// Writes lines "dd-mm-yyyy hh:mm:ss: text" (local time) to "sender.log" (id 0) and "test_<id>.log"
/// in one directory. A file longer than 1 MiB is cut to the newer half of its lines before the next
/// line is appended.
///
/// Threads: any. Whoever logs formats and queues; the disk is the writer thread's business, so that
/// a slow one stops nobody. A file has its lines in the order in which they were logged.
class Logger {
 public:
  /// Starts the writer thread. `directory` ends in "/"; it is created (mode 0755) by the first
  /// OpenLogFile.
  explicit Logger(std::string directory);

  /// For tests: with other calls below the size check.
  Logger(std::string directory, const LogFileCalls& calls);

  /// Shutdown().
  ~Logger();  // NOLINT(bugprone-exception-escape): see its definition

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  /// Opens the file of `id` for appending unless it is open. Throws std::runtime_error "Failed to
  /// create log directory!" when there is no directory and none can be made. A file that cannot be
  /// opened is no error: messages of that id then reach only the system log.
  void OpenLogFile(std::uint16_t id);

  /// Closes the file of `id`, 0 included. Lines still queued for it are dropped unless it is opened
  /// again before their turn. Waits for a line being written to it.
  void CloseLogFile(std::uint16_t id);

  /// Queues one line for the file of `id`; does nothing when that file is not open. Nothing depends
  /// on `flag`.
  void Log(std::uint16_t id, int flag, const char* format, ...)
      __attribute__((format(printf, 4, 5)));

  /// As Log. `arguments` is left usable only as va_copy leaves it: the caller still calls va_end.
  void LogV(std::uint16_t id, int flag, const char* format, va_list arguments)
      __attribute__((format(printf, 4, 0)));

  /// Waits until every line queued before this call is written. Not to be called on the writer
  /// thread.
  void Flush();

  /// Writes what is queued, joins the writer thread, closes every file; Log does nothing from then
  /// on. On the writer thread itself it raises boost::thread_resource_error "boost thread: trying
  /// joining itself". May be called twice.
  void Shutdown();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ipsla

#endif  // IPSLA_LOG_LOGGER_H_
