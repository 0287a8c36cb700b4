// Stand-in for the device's system-log library: syslog(3).

#include "platform/logsvc.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>

namespace {

std::atomic<bool> is_open{false};

}  // namespace

// The device's service keeps messages apart by module and flag; syslog(3) has no place for either.
void SYSLOG_message(int /*module*/, int /*flag*/, int severity, const char* format, ...) {
  // A null ident is the program's name, so that the daemon and its tools are told apart.
  if (!is_open.exchange(true)) openlog(nullptr, LOG_PID, LOG_USER);
  va_list arguments;
  va_start(arguments, format);
  vsyslog(LOG_MAKEPRI(LOG_USER, LOG_PRI(severity)), format, arguments);
  va_end(arguments);
}

void SYSLOG_close(void) {
  closelog();
  is_open = false;
}
