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
// Threads: a message may be logged from any thread at any time, also while the process exits. That
// never throws, never waits for the disk and leaves errno as it was. The other calls do as they
// say.

#ifndef IPSLA_LOG_LOG_H_
#define IPSLA_LOG_LOG_H_

#include <cstdint>

#include "log/system_log.h"

namespace ipsla {

/// Starts the process's log files below "/var/log/ip-sla/" and their writer thread, which takes
/// neither the priority nor the stack size of the caller. Without it, and after ShutdownLog, every
/// message reaches only the system log and the calls below do nothing. Main thread.
void StartLog();

/// The file half of one message (Logger::Log). Nothing depends on `flag`; callers give 1.
void Log(std::uint16_t id, int flag, const char* format, ...) __attribute__((format(printf, 3, 4)));

/// Opens the file of `id` unless it is open (Logger::OpenLogFile). Waits for the disk. Throws
/// std::runtime_error when the directory is missing and cannot be created.
void OpenLogFile(std::uint16_t id);

/// Closes the file of `id` (Logger::CloseLogFile). Waits for the disk.
void CloseLogFile(std::uint16_t id);

/// Waits until every file line logged before this call is written. Not to be called on the writer
/// thread.
void FlushLog();

/// Writes out what is queued, joins the writer thread and closes every file. Later messages reach
/// only the system log. Runs by itself at exit; calling it earlier, or twice, is harmless.
void ShutdownLog();

}  // namespace ipsla

// NOLINTBEGIN(cppcoreguidelines-macro-usage): only a macro can join the prefix to a literal format
// and name the caller.

/// The file half of a DEBUG message.
#define LOG_DEBUG_FILE(id, ...)                                   \
  do {                                                            \
    const ::ipsla::log_internal::ErrnoKeeper keep_errno_;         \
    ::ipsla::Log(static_cast<std::uint16_t>(id), 1, __VA_ARGS__); \
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
