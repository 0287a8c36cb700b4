// The report of a finished run in the logs.

#ifndef IPSLA_SENDER_METRIC_REPORT_H_
#define IPSLA_SENDER_METRIC_REPORT_H_

#include "config/task_config.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// Logs the report of one run: a header, and for a successful run its packet counts, RTT, one-way latency, jitter, loss
/// and order. The last three sections reach the test's file only for jitter types but the system log always; that
/// asymmetry is deliberate. Any thread.
void PrintMetric(const SlaTaskConfig& config, const SlaTaskMetrics& metrics);

}  // namespace ipsla

#endif  // IPSLA_SENDER_METRIC_REPORT_H_
