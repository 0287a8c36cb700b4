// The page's series as JSON. Pure. docs/exporter.md describes the document.

#ifndef IPSLA_TOOLS_EXPORTER_HISTORY_JSON_H_
#define IPSLA_TOOLS_EXPORTER_HISTORY_JSON_H_

#include <cstdint>
#include <string>
#include <vector>

#include "exporter/history.h"

namespace ipsla::exporter {

/// {"sla-id": task, "time": [...], "rtt-min": [...], ..., "failures": [{"time", "reason"}, ...]}:
/// one array for each kind of value that any of the points has, all as long as "time", with null
/// where a run lacks it. Times of runs in seconds since the epoch, values in milliseconds and
/// percent.
[[nodiscard]] std::string HistoryJson(std::int32_t task, const TaskHistory& history,
                                      const std::vector<std::string>& reasons);

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_HISTORY_JSON_H_
