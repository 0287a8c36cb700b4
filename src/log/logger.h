// The file side of the log: one text file for the daemon and one per test, written by a thread of
// its own.

#ifndef IPSLA_LOG_LOGGER_H_
#define IPSLA_LOG_LOGGER_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace ipsla {

struct LogFileCalls;

/// Writes lines "dd-mm-yyyy hh:mm:ss: text" (local time) to "sender.log" (id 0) and "test_<id>.log"
/// in one directory. A file longer than 1 MiB is cut to the newer half of its lines before the next
/// line is appended.
///
/// Threads: any. Whoever logs queues a line; the disk is the writer thread's business, so that
/// a slow one stops nobody. Within a file, first logged is first written. When the disk falls 16
/// MiB behind, lines are dropped, and "N lines dropped" stands in their place.
class Logger {
 public:
  /// For so long CloseLogFile waits for the disk, and no longer until the disk goes on again.
  static constexpr std::chrono::seconds kClosePatience{1};
  /// For so long Shutdown waits for the disk.
  static constexpr std::chrono::seconds kShutdownPatience{5};

  /// Starts the writer thread. `directory` ends in "/"; it is created (mode 0755) by the first
  /// OpenLogFile.
  explicit Logger(std::string directory);

  /// For tests: with other calls below the size check, and less patience in Shutdown.
  Logger(std::string directory, const LogFileCalls& calls,
         std::chrono::milliseconds shutdown_patience = kShutdownPatience);

  /// Shutdown().
  ~Logger();  // NOLINT(bugprone-exception-escape): see its definition

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  /// Opens the file of `id` for appending unless it is open. Throws std::runtime_error "Failed to
  /// create log directory!" when there is no directory and none can be made. A file that cannot be
  /// opened is no error: messages of that id then reach only the system log.
  void OpenLogFile(std::uint16_t id);

  /// Closes the file of `id`, 0 included, after what was logged to it before is written. Where the
  /// disk takes longer than kClosePatience, those lines are lost unless the file is opened again
  /// before their turn.
  void CloseLogFile(std::uint16_t id);

  /// Queues one line for the file of `id`; does nothing when that file is not open.
  void Write(std::uint16_t id, std::string_view text);

  /// Whether the file of `id` is open.
  [[nodiscard]] bool IsOpen(std::uint16_t id) const;

  /// Waits until every line queued before this call is written. False when that has taken
  /// `patience`, and on the writer thread.
  bool Flush(std::chrono::milliseconds patience);

  /// Writes what is queued, joins the writer thread, closes every file; Write does nothing from
  /// then on. A writer that the disk holds for longer than kShutdownPatience is left to itself. On
  /// the writer thread itself it raises boost::thread_resource_error "boost thread: trying joining
  /// itself". May be called twice.
  void Shutdown();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // the writer thread has it too, and may be left with it
  const std::chrono::milliseconds shutdown_patience_;
};

}  // namespace ipsla

#endif  // IPSLA_LOG_LOGGER_H_
