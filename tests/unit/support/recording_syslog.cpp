#include "support/recording_syslog.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <utility>

#include "log/log.h"
#include "platform/logsvc.h"

namespace {

struct SyslogRecorder {
  std::mutex mutex;
  std::vector<ipsla::test::SyslogRecord> records;  // guarded by mutex
};

// Made on first use and never destroyed: messages come before main and while the process exits.
SyslogRecorder& TheSyslogRecorder() {
  static SyslogRecorder& recorder = *new SyslogRecorder;
  return recorder;
}

std::string LogPath(std::uint16_t id) {
  const std::string name = id == 0 ? "sender.log" : "test_" + std::to_string(id) + ".log";
  return "/var/log/ip-sla/" + name;
}

}  // namespace

extern "C" void SYSLOG_message(int module, int flag, int severity, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string line(static_cast<std::size_t>(length > 0 ? length : 0), '\0');
  std::vsnprintf(line.data(), line.size() + 1, format, again);
  va_end(again);
  SyslogRecorder& recorder = TheSyslogRecorder();
  const std::lock_guard lock(recorder.mutex);
  recorder.records.push_back({module, flag, severity, std::move(line)});
}

extern "C" void SYSLOG_close(void) {}

namespace ipsla::test {

std::string SyslogRecord::Text() const {
  const std::string end_of_prefix = severity == 7 ? "(): " : ": ";
  const std::size_t found = line.find(end_of_prefix);
  return found == std::string::npos ? line : line.substr(found + end_of_prefix.size());
}

std::vector<SyslogRecord> TakeSyslog() {
  SyslogRecorder& recorder = TheSyslogRecorder();
  const std::lock_guard lock(recorder.mutex);
  return std::exchange(recorder.records, {});
}

std::vector<std::string> TakeSyslogTexts() {
  std::vector<std::string> texts;
  for (const SyslogRecord& record : TakeSyslog()) texts.push_back(record.Text());
  return texts;
}

std::vector<std::string> ReadLogFile(std::uint16_t id) {
  FlushLog(std::chrono::seconds(20));
  std::ifstream in(LogPath(id));
  std::vector<std::string> lines;
  constexpr std::size_t kTimeLength = 21;  // "dd-mm-yyyy hh:mm:ss: "
  for (std::string line; std::getline(in, line);) {
    const bool has_time =
        line.size() >= kTimeLength && line[2] == '-' && line[5] == '-' && line[19] == ':';
    lines.push_back(has_time ? line.substr(kTimeLength) : line);
  }
  return lines;
}

void FreshLogFile(std::uint16_t id) {
  StartLog();
  FlushLog(std::chrono::seconds(20));
  CloseLogFile(id);
  std::filesystem::remove(LogPath(id));
  OpenLogFile(id);
}

}  // namespace ipsla::test
