#include "log/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <memory>
#include <vector>

#include <boost/thread/exceptions.hpp>

#include "log/format.h"
#include "log/logger.h"

namespace ipsla {
namespace {

// The logger that file lines go to, null while there is none.
std::atomic<Logger*> process_logger{nullptr};

void ShutdownAtExit() {
  try {
    ShutdownLog();
  } catch (const boost::thread_exception&) {
    // The writer thread itself exits: it cannot wait for itself, and what is still queued is lost
    // with it.
  }
}

// Loggers are never destroyed: other threads go on while one of them shuts the log down, and what
// they log must meet a living object.
void KeepForEver(std::unique_ptr<Logger> logger) {
  static auto& kept = *new std::vector<std::unique_ptr<Logger>>;
  kept.push_back(std::move(logger));
}

}  // namespace

void StartLog() {
  if (process_logger != nullptr) return;
  auto logger = std::make_unique<Logger>("/var/log/ip-sla/");
  process_logger = logger.get();
  KeepForEver(std::move(logger));
  [[maybe_unused]] static const int registered = std::atexit(ShutdownAtExit);
}

void Log(std::uint16_t id, int /*flag*/, const char* format, ...) {
  Logger* const logger = process_logger;
  if (logger == nullptr || !logger->IsOpen(id)) return;
  const log_internal::ErrnoKeeper keep_errno;
  va_list arguments;
  va_start(arguments, format);
  const FormattedText text(format, arguments);
  va_end(arguments);
  logger->Write(id, text.View());
}

void OpenLogFile(std::uint16_t id) {
  if (Logger* const logger = process_logger; logger != nullptr) logger->OpenLogFile(id);
}

void CloseLogFile(std::uint16_t id) {
  if (Logger* const logger = process_logger; logger != nullptr) logger->CloseLogFile(id);
}

bool FlushLog(std::chrono::milliseconds patience) {
  Logger* const logger = process_logger;
  return logger == nullptr || logger->Flush(patience);
}

void ShutdownLog() {
  Logger* const logger = process_logger;
  if (logger == nullptr) return;
  logger->Shutdown();
  process_logger = nullptr;
}

namespace log_internal {
namespace {

void WriteToFile(std::uint16_t id, const FormattedText& text) {
  if (Logger* const logger = process_logger; logger != nullptr) logger->Write(id, text.View());
}

}  // namespace

void LogDebug(std::uint16_t id, const SourcePlace& place, const char* format, ...) {
  const ErrnoKeeper keep_errno;
  va_list arguments;
  va_start(arguments, format);
  const FormattedText text(format, arguments);
  va_end(arguments);
  WriteToFile(id, text);
  SYSLOG_message(kModule, 1, 7, "%%%s-%s-%s: %s:%d:%s(): %s", "IP_SLA", "D", "DEBUG", place.file,
                 place.line, place.function, text.Text());
}

void LogError(std::uint16_t id, const char* format, ...) {
  const ErrnoKeeper keep_errno;
  va_list arguments;
  va_start(arguments, format);
  const FormattedText text(format, arguments);
  va_end(arguments);
  WriteToFile(id, text);
  SYSLOG_message(kModule, 0, 3, "%%%s-%s-%s: %s", "IP_SLA", "E", "ERROR", text.Text());
}

}  // namespace log_internal

}  // namespace ipsla
