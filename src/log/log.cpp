#include "log/log.h"

#include <cstdarg>
#include <cstdlib>

#include <boost/thread/exceptions.hpp>

namespace ipsla {
namespace {

void ShutdownAtExit() {
  try {
    ShutdownLog();
  } catch (const boost::thread_exception&) {
    // The writer thread itself exits: it cannot wait for itself, and what is still queued is lost
    // with it.
  }
}

Logger& CreateProcessLogger() {
  // Never destroyed: other threads go on while one of them exits, and what they log must meet a
  // living object.
  auto& logger = *new Logger("/var/log/ip-sla/");
  std::atexit(ShutdownAtExit);
  return logger;
}

// Makes the logger, and with it the writer thread, before main runs and raises the process to
// real-time priority.
[[maybe_unused]] const Logger& created_before_main = ProcessLogger();

}  // namespace

Logger& ProcessLogger() {
  static Logger& logger = CreateProcessLogger();
  return logger;
}

void Log(std::uint16_t id, int flag, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ProcessLogger().LogV(id, flag, format, arguments);
  va_end(arguments);
}

void OpenLogFile(std::uint16_t id) {
  ProcessLogger().OpenLogFile(id);
}

void CloseLogFile(std::uint16_t id) {
  ProcessLogger().CloseLogFile(id);
}

void FlushLog() {
  ProcessLogger().Flush();
}

void ShutdownLog() {
  ProcessLogger().Shutdown();
}

}  // namespace ipsla
