// The answer to a scrape. Pure. docs/exporter.md describes every metric.

#ifndef IPSLA_TOOLS_EXPORTER_METRICS_TEXT_H_
#define IPSLA_TOOLS_EXPORTER_METRICS_TEXT_H_

#include <string>

#include "exporter/history.h"
#include "exporter/metric_writer.h"
#include "exporter/process_info.h"
#include "exporter/snapshot.h"

namespace ipsla::exporter {

/// The exporter's own figures.
struct SelfInfo {
  ProcessInfo process;
  HistoryState history;
};

/// The whole reply to a scrape.
[[nodiscard]] std::string MetricsText(const Snapshot& snapshot, const SelfInfo& self,
                                      MetricFormat format);

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_METRICS_TEXT_H_
