// The system-log half of a message. Message sites use log.h; this stands below it because the
// files' own code reports its failures too.

#ifndef IPSLA_LOG_SYSTEM_LOG_H_
#define IPSLA_LOG_SYSTEM_LOG_H_

#include <cerrno>

#include "platform/logsvc.h"

namespace ipsla::log_internal {

/// Restores errno at the end of a block, so that a caller may log first and look at errno
/// afterwards.
class ErrnoKeeper {
 public:
  /// Remembers errno, and puts it back.
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int saved_;
};

/// The daemon's number with the system-log service.
inline constexpr int kModule = 59;

}  // namespace ipsla::log_internal

// NOLINTBEGIN(cppcoreguidelines-macro-usage): only a macro can join the prefix to a literal format
// and name the caller.

/// A DEBUG message to the system log alone, with the source position in its prefix.
#define LOG_DEBUG_SYSTEM(format, ...)                                                       \
  do {                                                                                      \
    const ::ipsla::log_internal::ErrnoKeeper keep_errno_;                                   \
    SYSLOG_message(::ipsla::log_internal::kModule, 1, 7, "%%%s-%s-%s: %s:%d:%s(): " format, \
                   "IP_SLA", "D", "DEBUG", __FILE_NAME__, __LINE__,                         \
                   __func__ __VA_OPT__(, ) __VA_ARGS__);                                    \
  } while (false)

// NOLINTEND(cppcoreguidelines-macro-usage)

#endif  // IPSLA_LOG_SYSTEM_LOG_H_
