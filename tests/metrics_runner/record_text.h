// Text forms of a run's probe records (in) and of its metrics (out), for the metrics runner.
//
// A run is one line of words separated by blanks:
//
//   echo TYPE COUNT record...                            udp-echo (TYPE 1), icmp-echo (4)
//   jitter TYPE RESPONDER_COUNT BUDGET_MS COUNT record...  udp-jitter (2), udp-jitter-ntp (3)
//   icmp COUNT record...                                 icmp-jitter
//   history COUNT entry...                               the aggregate of a history, oldest entry
//   first
//
// A record is 14 words, in the order of SlaPacketRecord: id, state, ss, rs, send_stamp,
// remote_receive_stamp, remote_transmit_stamp, receive_stamp, send_ms, receive_ms, ntp_t1 ...
// ntp_t4. The NTP stamps are given as numbers in host order. A history entry is 9 words: status and
// the eight jitter values in the order of SlaTaskMetrics. Doubles may be hexadecimal. The answer to
// every line is one JSON object on one line, doubles with 17 digits and non-finite ones as the
// texts "nan", "inf" and "-inf".

#ifndef IPSLA_METRICS_RUNNER_RECORD_TEXT_H_
#define IPSLA_METRICS_RUNNER_RECORD_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "sender/task_metrics.h"

namespace ipsla {

/// Takes the words of one line from the left. A missing or malformed word throws std::runtime_error
/// naming it.
class WordReader {
 public:
  explicit WordReader(const std::string& line) : rest_(line.c_str()) {}

  std::string_view Word();
  std::uint64_t Unsigned();
  std::uint32_t Unsigned32() { return static_cast<std::uint32_t>(Unsigned()); }
  double Real();
  SlaPacketRecord Record();
  SlaTaskMetrics HistoryEntry();

 private:
  const char* rest_;  // the line outlives the reader
};

[[nodiscard]] std::string MetricsToJson(const SlaTaskMetrics& metrics);

}  // namespace ipsla

#endif  // IPSLA_METRICS_RUNNER_RECORD_TEXT_H_
