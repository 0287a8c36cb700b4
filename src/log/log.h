// The daemon's log: every message goes to the device's system-log service and to a text file.
//
// Message sites use the macros. LOG_DEBUG and LOG_ERROR write both copies of one message; the few
// messages whose two copies differ use the halves LOG_DEBUG_FILE and LOG_DEBUG_SYSTEM. Formats are
// literals, checked by the compiler. `id` selects the file: 0 is the daemon's own "sender.log", any
// other id the file of that test.
//
//   LOG_DEBUG(0, "Recive commad %s", name);
//   LOG_ERROR(id, "(test %d) %s", id, what);     // an ERROR text begins with "(test %d) "
//
// Threads: everything here may be called from any thread, at any time, also while the process
// exits. No call throws (OpenLogFile excepted), none waits for the disk, and all of them leave
// errno as they found it.

#ifndef IPSLA_LOG_LOG_H_
#define IPSLA_LOG_LOG_H_

#include <cerrno>
#include <cstdint>

#include "log/logger.h"
#include "platform/logsvc.h"

namespace ipsla {

/// Starts the process's log files below "/var/log/ip-sla/" and their writer thread, which takes
/// neither the priority nor the stack size of the caller. Without it, and after ShutdownLog, every
/// message reaches only the system log and the calls below do nothing. Main thread.
void StartLog();

/// The file half of one message (Logger::Log). `flag` is always 1 and
/// has no effect.
void Log(std::uint16_t id, int flag, const char* format, ...) __attribute__((format(printf, 3, 4)));

/// Opens the file of `id` unless it is open (Logger::OpenLogFile). Throws std::runtime_error when
/// the directory is missing and cannot be created.
void OpenLogFile(std::uint16_t id);

/// Closes the file of `id` (Logger::CloseLogFile).
void CloseLogFile(std::uint16_t id);

/// Waits until every file line logged before this call is written. Not to be called on the writer
/// thread.
void FlushLog();

/// Writes out what is queued, joins the writer thread and closes every file. Later messages reach
/// only the system log. Runs by itself at exit; calling it earlier, or twice, is harmless.
void ShutdownLog();

// The limiter of "ERROR" messages: one message of each kind per test gets through per 60 seconds,
// the period starting with the first message after a quiet one. Kinds: 0 a run failed to start, 2 a
// probe could not be sent, 3 the control request, 4 the control response, 5 the control time-out.

inline constexpr int kErrorKinds = 13;

/// Gives test `id` its limiter slots; an id that has slots keeps them.
void AddErrorLimits(std::uint16_t id);

/// Drops the slots of test `id`.
void RemoveErrorLimits(std::uint16_t id);

/// Counts one message of `kind` (0..12) for test `id` and tells whether it may be logged. An id
/// without slots gets them now. Ask once per reported failure: the answer holds for every line of
/// that report.
[[nodiscard]] bool IsErrorLogAllowed(std::uint16_t id, int kind);

namespace log_internal {

// Restores errno at the end of a log statement, so that a caller may log first and look at errno
// afterwards.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int saved_;
};

inline constexpr int kModule = 59;

}  // namespace log_internal
}  // namespace ipsla

// NOLINTBEGIN(cppcoreguidelines-macro-usage): only a macro can join the prefix to a literal format
// and name the caller.

/// The file half of a DEBUG message.
#define LOG_DEBUG_FILE(id, ...)                                   \
  do {                                                            \
    const ::ipsla::log_internal::ErrnoKeeper keep_errno_;         \
    ::ipsla::Log(static_cast<std::uint16_t>(id), 1, __VA_ARGS__); \
  } while (false)

/// The system-log half of a DEBUG message, with the source position in its prefix.
#define LOG_DEBUG_SYSTEM(format, ...)                                                       \
  do {                                                                                      \
    const ::ipsla::log_internal::ErrnoKeeper keep_errno_;                                   \
    SYSLOG_message(::ipsla::log_internal::kModule, 1, 7, "%%%s-%s-%s: %s:%d:%s(): " format, \
                   "IP_SLA", "D", "DEBUG", __FILE_NAME__, __LINE__,                         \
                   __func__ __VA_OPT__(, ) __VA_ARGS__);                                    \
  } while (false)

/// Both copies of a DEBUG message: LOG_DEBUG(id, "format", arguments...).
#define LOG_DEBUG(id, ...)           \
  do {                               \
    LOG_DEBUG_FILE(id, __VA_ARGS__); \
    LOG_DEBUG_SYSTEM(__VA_ARGS__);   \
  } while (false)

/// Both copies of an ERROR message. The format begins with "(test %d) ".
#define LOG_ERROR(id, format, ...)                                                             \
  do {                                                                                         \
    const ::ipsla::log_internal::ErrnoKeeper keep_errno_;                                      \
    ::ipsla::Log(static_cast<std::uint16_t>(id), 1, format __VA_OPT__(, ) __VA_ARGS__);        \
    SYSLOG_message(::ipsla::log_internal::kModule, 0, 3, "%%%s-%s-%s: " format, "IP_SLA", "E", \
                   "ERROR" __VA_OPT__(, ) __VA_ARGS__);                                        \
  } while (false)

// NOLINTEND(cppcoreguidelines-macro-usage)

#endif  // IPSLA_LOG_LOG_H_
