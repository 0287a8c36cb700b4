#include "ctl/thresholds.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

namespace ipsla::ctl {
namespace {

std::optional<double> ReadNumber(std::string_view text) {
  double value = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
  const bool is_number = error == std::errc{} && end == text.data() + text.size();
  if (!is_number || !std::isfinite(value) || std::signbit(value)) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

const std::vector<std::string>& ThresholdNames() {
  static const std::vector<std::string> names{"rtt", "latency", "jitter", "loss", "age"};
  return names;
}

std::optional<Thresholds> ReadThresholds(std::string_view text, std::string* error) {
  Thresholds thresholds;
  while (!text.empty()) {
    const std::size_t comma = std::min(text.find(','), text.size());
    const std::string_view entry = text.substr(0, comma);
    const bool ends_in_comma = comma + 1 == text.size();
    text.remove_prefix(std::min(comma + 1, text.size()));

    const std::size_t equals = std::min(entry.find('='), entry.size());
    const std::string name(entry.substr(0, equals));
    const auto& names = ThresholdNames();
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      *error = fmt::format("\"{}\" is no threshold: say NAME=NUMBER with NAME one of {}", entry,
                           fmt::join(names, ", "));
      return std::nullopt;
    }
    const auto value = ReadNumber(entry.substr(std::min(equals + 1, entry.size())));
    if (!value) {
      *error = fmt::format("\"{}\" has no number that is 0 or more", entry);
      return std::nullopt;
    }
    if (!thresholds.emplace(name, *value).second) {
      *error = fmt::format("\"{}\" is given twice", name);
      return std::nullopt;
    }
    if (ends_in_comma) {
      *error = "a threshold is missing behind the last comma";
      return std::nullopt;
    }
  }
  return thresholds;
}

}  // namespace ipsla::ctl
