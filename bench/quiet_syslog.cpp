// The benchmarks' system log: formats every message, as a real one must, and drops it.

#include <array>
#include <cstdarg>
#include <cstdio>

#include <benchmark/benchmark.h>

#include "platform/logsvc.h"

extern "C" void SYSLOG_message(int /*module*/, int /*flag*/, int /*severity*/, const char* format,
                               ...) {
  constexpr std::size_t kLongestLine = 1024;
  std::array<char, kLongestLine> line{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  benchmark::DoNotOptimize(line);
}

extern "C" void SYSLOG_close(void) {}
