// Metrics as text, in the two formats that Prometheus reads. Pure.

#ifndef IPSLA_TOOLS_EXPORTER_METRIC_WRITER_H_
#define IPSLA_TOOLS_EXPORTER_METRIC_WRITER_H_

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace ipsla::exporter {

/// The two text formats that scrapers ask for.
enum class MetricFormat : std::uint8_t {
  kPrometheus,   ///< text/plain; version=0.0.4
  kOpenMetrics,  ///< application/openmetrics-text; version=1.0.0
};

/// As the format calls them.
enum class MetricType : std::uint8_t { kGauge, kCounter, kInfo };

/// Writes one family of samples after the other. A family without a sample leaves no trace.
class MetricWriter {
 public:
  /// Names and values; the values are escaped here.
  using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

  explicit MetricWriter(MetricFormat format) : format_(format) {}

  /// Begins a family. `name` is that of its samples, with "_total" for a counter, "_info" for an
  /// info and the unit for a gauge that has one. The three texts must outlive the family; `unit` is
  /// empty for none.
  void Family(std::string_view name, MetricType type, std::string_view unit, std::string_view help);

  /// One sample. Nothing is written without a value; a value that is not finite is none.
  void Sample(Labels labels, std::optional<double> value);

  /// The whole text, ended as the format demands. The writer is empty afterwards.
  [[nodiscard]] std::string Finish();

 private:
  // Writes what stands above a family's first sample.
  void WriteHead();

  const MetricFormat format_;
  std::string text_;
  // The family at hand; its head is written with its first sample.
  std::string_view name_, unit_, help_;
  MetricType type_ = MetricType::kGauge;
  bool head_pending_ = false;
};

/// `text` as it stands between the quotes of a label's value.
[[nodiscard]] std::string EscapedLabel(std::string_view text);

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_METRIC_WRITER_H_
