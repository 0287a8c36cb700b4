#include "record_text.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <boost/endian/conversion.hpp>

namespace ipsla {
namespace {

class JsonWriter {
 public:
  void Add(const char* name, std::int32_t value) { Put(name, std::to_string(value)); }

  void Add(const char* name, double value) {
    if (std::isnan(value)) {
      Put(name, "\"nan\"");
    } else if (std::isinf(value)) {
      Put(name, value > 0 ? "\"inf\"" : "\"-inf\"");
    } else {
      std::array<char, 40> text{};  // 17 digits, sign, point and exponent
      std::snprintf(text.data(), text.size(), "%.17g", value);
      Put(name, text.data());
    }
  }

  std::string Finish() { return text_ + "}"; }

 private:
  void Put(const char* name, const std::string& value) {
    text_ += text_.empty() ? "{\"" : ",\"";
    text_ += name;
    text_ += "\":";
    text_ += value;
  }

  std::string text_;
};

}  // namespace

std::string_view WordReader::Word() {
  rest_ += std::strspn(rest_, " ");
  const std::size_t length = std::strcspn(rest_, " ");
  if (length == 0) throw std::runtime_error("the line ends too early");
  const std::string_view word(rest_, length);
  rest_ += length;
  return word;
}

std::uint64_t WordReader::Unsigned() {
  const std::string_view word = Word();
  char* end = nullptr;
  const std::uint64_t value = std::strtoull(word.data(), &end, 10);
  if (end != word.data() + word.size()) throw std::runtime_error("no number: " + std::string(word));
  return value;
}

double WordReader::Real() {
  const std::string_view word = Word();
  char* end = nullptr;
  const double value = std::strtod(word.data(), &end);
  if (end != word.data() + word.size()) throw std::runtime_error("no number: " + std::string(word));
  return value;
}

SlaPacketRecord WordReader::Record() {
  SlaPacketRecord record;
  record.id = Unsigned32();
  record.state = static_cast<SlaPacketState>(Unsigned());
  record.ss = Unsigned32();
  record.rs = Unsigned32();
  record.send_stamp = Unsigned();
  record.remote_receive_stamp = Unsigned();
  record.remote_transmit_stamp = Unsigned();
  record.receive_stamp = Unsigned();
  record.send_ms = Real();
  record.receive_ms = Real();
  for (std::uint64_t* stamp : {&record.ntp_t1, &record.ntp_t2, &record.ntp_t3, &record.ntp_t4}) {
    *stamp =
        boost::endian::native_to_big(Unsigned());  // records keep them as they came over the wire
  }
  return record;
}

SlaTaskMetrics WordReader::HistoryEntry() {
  SlaTaskMetrics entry;
  entry.status = static_cast<RunResult>(Unsigned());
  for (double* value :
       {&entry.jitter_sd_min, &entry.jitter_sd_avg, &entry.jitter_sd_sd, &entry.jitter_sd_max,
        &entry.jitter_ds_min, &entry.jitter_ds_avg, &entry.jitter_ds_sd, &entry.jitter_ds_max}) {
    *value = Real();
  }
  return entry;
}

std::string MetricsToJson(const SlaTaskMetrics& metrics) {
  JsonWriter json;
  json.Add("sd_smp_count", metrics.sd_smp_count);
  json.Add("ds_smp_count", metrics.ds_smp_count);
  json.Add("rtt_smp_count", metrics.rtt_smp_count);
  json.Add("sd_pkt_count", metrics.sd_pkt_count);
  json.Add("ds_pkt_count", metrics.ds_pkt_count);
  json.Add("sd_loss", metrics.sd_loss);
  json.Add("ds_loss", metrics.ds_loss);
  json.Add("sd_out_of_sequence", metrics.sd_out_of_sequence);
  json.Add("ds_out_of_sequence", metrics.ds_out_of_sequence);
  json.Add("late_arrival", metrics.late_arrival);
  json.Add("skipped", metrics.skipped);
  json.Add("duplicate", metrics.duplicate);
  json.Add("sd_loss_pct", metrics.sd_loss_pct);
  json.Add("ds_loss_pct", metrics.ds_loss_pct);
  json.Add("jitter_sd_min", metrics.jitter_sd_min);
  json.Add("jitter_sd_avg", metrics.jitter_sd_avg);
  json.Add("jitter_sd_sd", metrics.jitter_sd_sd);
  json.Add("jitter_sd_max", metrics.jitter_sd_max);
  json.Add("jitter_ds_min", metrics.jitter_ds_min);
  json.Add("jitter_ds_avg", metrics.jitter_ds_avg);
  json.Add("jitter_ds_sd", metrics.jitter_ds_sd);
  json.Add("jitter_ds_max", metrics.jitter_ds_max);
  json.Add("latency_sd_min", metrics.latency_sd_min);
  json.Add("latency_sd_avg", metrics.latency_sd_avg);
  json.Add("latency_sd_max", metrics.latency_sd_max);
  json.Add("latency_ds_min", metrics.latency_ds_min);
  json.Add("latency_ds_avg", metrics.latency_ds_avg);
  json.Add("latency_ds_max", metrics.latency_ds_max);
  json.Add("rtt_min", metrics.rtt_min);
  json.Add("rtt_avg", metrics.rtt_avg);
  json.Add("rtt_max", metrics.rtt_max);
  return json.Finish();
}

}  // namespace ipsla
