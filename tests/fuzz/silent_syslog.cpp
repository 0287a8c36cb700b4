// Log lines of the code under test are formatted, so that a wrong argument shows, and dropped.

#include <cstdarg>
#include <cstdio>

#include "platform/logsvc.h"

extern "C" void SYSLOG_message(int /*module*/, int /*flag*/, int /*severity*/, const char* format,
                               ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
}

extern "C" void SYSLOG_close(void) {}
