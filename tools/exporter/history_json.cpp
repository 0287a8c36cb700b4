#include "exporter/history_json.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

namespace ipsla::exporter {
namespace {

struct ColumnName {
  Column column;
  const char* name;
};

constexpr std::array<ColumnName, kColumns> kColumnNames{{{Column::kRttMin, "rtt-min"},
                                                         {Column::kRttMean, "rtt-avg"},
                                                         {Column::kRttMax, "rtt-max"},
                                                         {Column::kDelaySd, "sd-avg"},
                                                         {Column::kDelayDs, "ds-avg"},
                                                         {Column::kJitterSd, "sd-sd"},
                                                         {Column::kJitterDs, "ds-sd"},
                                                         {Column::kLossSd, "sd-loss-pct"},
                                                         {Column::kLossDs, "ds-loss-pct"}}};

/// A JSON string, its control characters and all that is no ASCII replaced: reasons are English.
std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += byte < 0x20 || byte > 0x7e ? '?' : c;
  }
  return quoted + "\"";
}

/// `write` appends one element.
template <typename Write>
void AppendArray(std::string* json, const char* name, const TaskHistory& history, Write write) {
  fmt::format_to(std::back_inserter(*json), ",\"{}\":[", name);
  for (std::size_t index = 0; index < history.points.size(); ++index) {
    if (index > 0) {
      *json += ',';
    }
    write(history.points[index]);
  }
  *json += ']';
}

void AppendColumn(std::string* json, const ColumnName& column, const TaskHistory& history) {
  const bool any = std::any_of(
      history.points.begin(), history.points.end(),
      [&column](const HistoryPoint& point) { return point.Get(column.column).has_value(); });
  if (!any) {
    return;
  }
  const bool round_trip_loss = column.column == Column::kLossSd && !history.loss_by_direction;
  AppendArray(json, round_trip_loss ? "loss-pct" : column.name, history,
              [&](const HistoryPoint& point) {
                const Value value = point.Get(column.column);
                if (value) {
                  // As a float prints: its own digits, not those of its double.
                  fmt::format_to(std::back_inserter(*json), "{}", static_cast<float>(*value));
                } else {
                  *json += "null";
                }
              });
}

}  // namespace

std::string HistoryJson(std::int32_t task, const TaskHistory& history,
                        const std::vector<std::string>& reasons) {
  std::string json = fmt::format("{{\"sla-id\":{}", task);
  AppendArray(&json, "time", history, [&json](const HistoryPoint& point) {
    fmt::format_to(std::back_inserter(json), "{}", point.time);
  });
  for (const ColumnName& column : kColumnNames) {
    AppendColumn(&json, column, history);
  }
  json += ",\"failures\":[";
  const char* separator = "";
  for (const HistoryPoint& point : history.points) {
    if (const auto reason = point.Failure()) {
      fmt::format_to(std::back_inserter(json), R"({}{{"time":{},"reason":{}}})", separator,
                     point.time, Quoted(*reason < reasons.size() ? reasons[*reason] : ""));
      separator = ",";
    }
  }
  return json + "]}";
}

}  // namespace ipsla::exporter
