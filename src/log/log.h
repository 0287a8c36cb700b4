// The daemon's log, in two copies: a text file (of the test `id`, or with 0 "sender.log") and the
// device's system log.
//
// To be used through the macros, with literal formats, which the compiler checks. LOG_DEBUG and
// LOG_ERROR write both copies; LOG_DEBUG_FILE and LOG_DEBUG_SYSTEM are for the few messages that do
// not read the same in both.
//
//   LOG_DEBUG(0, "Recive commad %s", name);
//   LOG_ERROR(id, "(test %d) %s", id, what);     // an ERROR text begins with "(test %d) "
//
// Threads: any may log a message at any time, also while the process exits. That throws nothing,
// leaves errno as it was and does not wait for the log files' disk; for how long it waits for the
// system log is up to the device's library. Opening, closing, flushing and shutting down do wait
// for the disk, as long as each says.

#ifndef IPSLA_LOG_LOG_H_
#define IPSLA_LOG_LOG_H_

#include <chrono>
#include <cstdint>

#include "log/system_log.h"

namespace ipsla {

/// Starts the process's log files below "/var/log/ip-sla/" and their writer thread, which takes
/// neither the priority nor the stack size of the caller. Without it, and after ShutdownLog, every
/// message reaches only the system log and the calls below do nothing. Throws
/// boost::thread_resource_error when there is no thread to be had. Main thread.
void StartLog();

/// The file half of one message (Logger::Write). `flag` is not read.
void Log(std::uint16_t id, int flag, const char* format, ...) __attribute__((format(printf, 3, 4)));

/// Opens the file of `id` unless it is open (Logger::OpenLogFile). Waits for the disk. Throws
/// std::runtime_error when the directory is missing and cannot be created.
void OpenLogFile(std::uint16_t id);

/// Closes the file of `id` (Logger::CloseLogFile). Waits for the disk, a second at most.
void CloseLogFile(std::uint16_t id);

/// Waits until every file line logged before this call is written. False when that has taken
/// `patience`, and on the writer thread.
bool FlushLog(std::chrono::milliseconds patience);

/// Writes out what is queued, ends the writer thread and closes every file (Logger::Shutdown): at
/// most five seconds. Later messages reach only the system log. Runs by itself at exit and may run
/// before, or twice; on the writer thread it throws as Logger::Shutdown does.
void ShutdownLog();

namespace log_internal {

/// Where a message is logged.
struct SourcePlace {
  const char* file;
  int line;
  const char* function;
};

/// The two copies of a message, formatted once. Use the macros.
void LogDebug(std::uint16_t id, const SourcePlace& place, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void LogError(std::uint16_t id, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace log_internal

}  // namespace ipsla

// NOLINTBEGIN(cppcoreguidelines-macro-usage): only a macro can name the caller.

/// Both copies of a DEBUG message: LOG_DEBUG(id, "format", arguments...).
#define LOG_DEBUG(id, ...)                                        \
  ::ipsla::log_internal::LogDebug(static_cast<std::uint16_t>(id), \
                                  {__FILE_NAME__, __LINE__, __func__}, __VA_ARGS__)

/// The file half of a DEBUG message. The other half by itself is LOG_DEBUG_SYSTEM.
#define LOG_DEBUG_FILE(id, ...) ::ipsla::Log(static_cast<std::uint16_t>(id), 1, __VA_ARGS__)

/// Both copies of an ERROR message. The format begins with "(test %d) ".
#define LOG_ERROR(id, ...) \
  ::ipsla::log_internal::LogError(static_cast<std::uint16_t>(id), __VA_ARGS__)

// NOLINTEND(cppcoreguidelines-macro-usage)

#endif  // IPSLA_LOG_LOG_H_
