#include "exporter/metric_writer.h"

#include <cmath>
#include <iterator>

#include <fmt/format.h>

namespace ipsla::exporter {
namespace {

/// OpenMetrics names a family without the suffix of its samples.
std::string_view FamilyName(std::string_view name, MetricType type) {
  const std::string_view suffix = type == MetricType::kCounter ? "_total"
                                  : type == MetricType::kInfo  ? "_info"
                                                               : "";
  if (name.ends_with(suffix)) {
    name.remove_suffix(suffix.size());
  }
  return name;
}

std::string_view TypeName(MetricType type, MetricFormat format) {
  if (type == MetricType::kCounter) {
    return "counter";
  }
  return type == MetricType::kInfo && format == MetricFormat::kOpenMetrics ? "info" : "gauge";
}

}  // namespace

std::string EscapedLabel(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    if (c == '\\' || c == '"') {
      escaped += '\\';
    }
    // A label's value is UTF-8 without restriction, but the texts come from files: what is no
    // printable ASCII is not worth the risk of an answer that nobody can parse.
    if (c == '\n') {
      escaped += "\\n";
    } else {
      const auto byte = static_cast<unsigned char>(c);
      escaped += byte < 0x20 || byte > 0x7e ? '?' : c;
    }
  }
  return escaped;
}

void MetricWriter::Family(std::string_view name, MetricType type, std::string_view unit,
                          std::string_view help) {
  name_ = name;
  type_ = type;
  unit_ = unit;
  help_ = help;
  head_pending_ = true;
}

void MetricWriter::WriteHead() {
  head_pending_ = false;
  const bool open = format_ == MetricFormat::kOpenMetrics;
  const std::string_view family = open ? FamilyName(name_, type_) : name_;
  fmt::format_to(std::back_inserter(text_), "# HELP {} {}\n# TYPE {} {}\n", family, help_, family,
                 TypeName(type_, format_));
  if (open && !unit_.empty()) {
    fmt::format_to(std::back_inserter(text_), "# UNIT {} {}\n", family, unit_);
  }
}

void MetricWriter::Sample(Labels labels, std::optional<double> value) {
  if (!value || !std::isfinite(*value)) {
    return;
  }
  if (head_pending_) {
    WriteHead();
  }
  text_ += name_;
  char separator = '{';
  for (const auto& [label, text] : labels) {
    fmt::format_to(std::back_inserter(text_), "{}{}=\"{}\"", separator, label, EscapedLabel(text));
    separator = ',';
  }
  fmt::format_to(std::back_inserter(text_), "{}{}\n", separator == ',' ? "} " : " ", *value);
}

std::string MetricWriter::Finish() {
  if (format_ == MetricFormat::kOpenMetrics) {
    text_ += "# EOF\n";
  }
  return std::exchange(text_, {});
}

}  // namespace ipsla::exporter
