// The report of a finished run in the logs.

#ifndef IPSLA_SENDER_METRIC_REPORT_H_
#define IPSLA_SENDER_METRIC_REPORT_H_

#include <string>

#include "config/task_config.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// Logs the report of one run: a header, and for a successful run its packet counts, RTT, one-way
/// latency, jitter, loss and order. The last three sections reach the test's file only for jitter
/// types: kept-behaviours.md#reports-of-echo-tests-are-longer-in-the-system-log. Any thread.
void PrintMetric(const SlaTaskConfig& config, const SlaTaskMetrics& metrics);

/// The duration in the report's header: "~3 seconds" for 2.6.
[[nodiscard]] std::string OperationTimeText(double seconds);

}  // namespace ipsla

#endif  // IPSLA_SENDER_METRIC_REPORT_H_
