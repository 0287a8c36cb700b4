#include "sender/metric_report.h"

#include <array>
#include <ctime>

#include "log/format.h"
#include "log/log.h"

namespace ipsla {

namespace {

constexpr const char* kUnit = "milli";  // fills "%sseconds"

std::string LocalTimeText(std::int64_t seconds) {
  constexpr std::size_t kBufferBytes = 64;
  std::array<char, kBufferBytes> buffer{};
  const std::time_t time = seconds;
  tzset();  // the machine may have moved to another time zone
  tm local{};
  if (localtime_r(&time, &local) == nullptr) return {};
  return {buffer.data(), std::strftime(buffer.data(), buffer.size(), "%d.%m.%Y %T", &local)};
}

void PrintHeader(const SlaTaskConfig& config, const SlaTaskMetrics& metrics) {
  const std::string error = metrics.status == RunResult::kSuccessful
                                ? std::string()
                                : "Error: " + metrics.error_description;
  LOG_DEBUG(config.sla_id,
            "SLA task:\n\tID: #%u\tType: %s (#%u)\t\n\tStatus: %s\t%s\n\tStart time: %s\tFinish "
            "time: %s\n"
            "\tOperation time: %s",
            static_cast<unsigned>(config.sla_id), TestTypeToString(config.sla_type).c_str(),
            static_cast<unsigned>(config.sla_type), ResultToString(metrics.status).c_str(),
            error.c_str(), LocalTimeText(metrics.start_time).c_str(),
            LocalTimeText(metrics.finish_time).c_str(),
            OperationTimeText(std::difftime(metrics.finish_time, metrics.start_time)).c_str());
}

std::string OneWayText(const SlaTaskMetrics& m) {
  return Format(
      "Latency one-way time:\n\tNumber of Latency one-way Samples: %d\n"
      "\tSource to Destination Latency one way Min/Avg/Max: %.6f/%.6f/%.6f %sseconds\n"
      "\tDestination to Source Latency one way Min/Avg/Max: %.6f/%.6f/%.6f %sseconds\n"
      "Jitter time:\n\tNumber of SD Jitter Samples: %d\n\tNumber of DS Jitter Samples: %d\n"
      "\tSource to Destination Jitter Min/Avg/SD/Max: %.6f/%.6f/%.6f/%.6f %sseconds\n"
      "\tDestination to Source Jitter Min/Avg/SD/Max: %.6f/%.6f/%.6f/%.6f %sseconds",
      m.rtt_smp_count, m.latency_sd_min, m.latency_sd_avg, m.latency_sd_max, kUnit,
      m.latency_ds_min, m.latency_ds_avg, m.latency_ds_max, kUnit, m.sd_smp_count, m.ds_smp_count,
      m.jitter_sd_min, m.jitter_sd_avg, m.jitter_sd_sd, m.jitter_sd_max, kUnit, m.jitter_ds_min,
      m.jitter_ds_avg, m.jitter_ds_sd, m.jitter_ds_max, kUnit);
}

std::string LossText(const SlaTaskMetrics& m) {
  return Format(
      "Packet Loss Values:\n\tLoss Source to Destination: %d (%.2f%%)\tLoss Destination to Source: "
      "%d (%.2f%%)\n"
      "\tPacket Late Arrival: %d\tPacket Skipped: %d\tDuplicate packets: %d",
      m.sd_loss, m.sd_loss_pct, m.ds_loss, m.ds_loss_pct, m.late_arrival, m.skipped, m.duplicate);
}

std::string OrderText(const SlaTaskMetrics& m) {
  return Format(
      "Out Of Sequence Values:\n\tSource to Destination Out Of Sequence: %d"
      "\tDestination to Source Out Of Sequence: %d",
      m.sd_out_of_sequence, m.ds_out_of_sequence);
}

}  // namespace

std::string OperationTimeText(double seconds) {
  return Format("~%.0f seconds", seconds);
}

void PrintMetric(const SlaTaskConfig& config, const SlaTaskMetrics& metrics) {
  PrintHeader(config, metrics);
  if (metrics.status != RunResult::kSuccessful) return;
  LOG_DEBUG(config.sla_id,
            "Packets Values:\n\tNumber of SD Packets: %d\n\tNumber of DS Packets: %d",
            metrics.sd_pkt_count, metrics.ds_pkt_count);
  LOG_DEBUG(config.sla_id,
            "RTT Values:\n\tNumber Of RTT: %d\tRTT Min/Avg/Max: %.6f/%.6f/%.6f %sseconds",
            metrics.rtt_smp_count, metrics.rtt_min, metrics.rtt_avg, metrics.rtt_max, kUnit);
  const bool in_file = IsJitterType(config.sla_type);
  for (const std::string& section : {OneWayText(metrics), LossText(metrics), OrderText(metrics)}) {
    if (in_file) LOG_DEBUG_FILE(config.sla_id, "%s", section.c_str());
    LOG_DEBUG_SYSTEM("%s", section.c_str());
  }
}

}  // namespace ipsla
