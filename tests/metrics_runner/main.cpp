// ipsla-metrics-runner: reads runs from standard input, one per line, and prints their metrics
// (record_text.h).

#include <exception>
#include <iostream>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "record_text.h"
#include "sender/sender_metric_funcs.h"

namespace ipsla {
namespace {

constexpr std::uint16_t kTaskWithoutLogFile = 1;

std::vector<SlaPacketRecord> ReadRecords(WordReader* words) {
  std::vector<SlaPacketRecord> records(words->Unsigned());
  for (SlaPacketRecord& record : records) record = words->Record();
  return records;
}

SlaTaskMetrics RunEcho(WordReader* words) {
  SlaTaskMetrics metrics;
  ResetMetrics(static_cast<SlaTestType>(words->Unsigned()), &metrics);
  std::vector<SlaPacketRecord> records = ReadRecords(words);
  CalcEchoMetric(kTaskWithoutLogFile, records, &metrics);
  return metrics;
}

SlaTaskMetrics RunJitter(WordReader* words) {
  SlaTaskMetrics metrics;
  const auto type = static_cast<SlaTestType>(words->Unsigned());
  ResetMetrics(type, &metrics);
  const std::uint32_t responder_count = words->Unsigned32();
  const std::uint32_t budget_ms = words->Unsigned32();
  std::vector<SlaPacketRecord> records = ReadRecords(words);
  CalcJitterMetrics(kTaskWithoutLogFile, records, &metrics, responder_count, budget_ms,
                    type == SlaTestType::kUdpJitterNtp);
  return metrics;
}

SlaTaskMetrics RunIcmp(WordReader* words) {
  SlaTaskMetrics metrics;
  ResetMetrics(SlaTestType::kIcmpJitter, &metrics);
  std::vector<SlaPacketRecord> records = ReadRecords(words);
  CalcIcmpMetric(kTaskWithoutLogFile, records, &metrics);
  return metrics;
}

SlaTaskMetrics RunHistory(WordReader* words) {
  std::list<SlaTaskMetrics> history;
  for (std::uint64_t left = words->Unsigned(); left > 0; --left) {
    history.push_back(words->HistoryEntry());
  }
  return AggregateHistory(history);
}

SlaTaskMetrics RunLine(const std::string& line) {
  WordReader words(line);
  const std::string_view kind = words.Word();
  if (kind == "echo") return RunEcho(&words);
  if (kind == "jitter") return RunJitter(&words);
  if (kind == "icmp") return RunIcmp(&words);
  if (kind == "history") return RunHistory(&words);
  throw std::runtime_error("unknown kind of run: " + std::string(kind));
}

}  // namespace
}  // namespace ipsla

int main() {
  std::ios::sync_with_stdio(false);
  std::string line;
  try {
    while (std::getline(std::cin, line)) {
      std::cout << ipsla::MetricsToJson(ipsla::RunLine(line)) << '\n';
    }
  } catch (const std::exception& error) {
    std::cerr << "ipsla-metrics-runner: " << error.what() << " in: " << line << '\n';
    return 1;
  }
  return 0;
}
