// The system-log side of every message, recorded: the test program's own SYSLOG_message takes the
// library's place.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_RECORDING_SYSLOG_H_
#define IPSLA_TESTS_UNIT_SUPPORT_RECORDING_SYSLOG_H_

#include <cstdint>
#include <string>
#include <vector>

namespace ipsla::test {

struct SyslogRecord {
  int module = 0;
  int flag = 0;
  int severity = 0;
  std::string line;  ///< as formatted, prefix included

  /// The text behind the prefix (for DEBUG lines, behind the source position).
  [[nodiscard]] std::string Text() const;
};

/// What was sent to the system log since the last call. Any thread.
std::vector<SyslogRecord> TakeSyslog();

/// The texts of TakeSyslog().
std::vector<std::string> TakeSyslogTexts();

/// The lines of the log file of `id` since it was created, without their time prefix; a message of
/// several lines stays one entry per line. Flushes the log first.
std::vector<std::string> ReadLogFile(std::uint16_t id);

/// Starts the log, which ends with the test, and opens the log file of `id` anew, empty.
void FreshLogFile(std::uint16_t id);

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_RECORDING_SYSLOG_H_
