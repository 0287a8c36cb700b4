// Metric calculations: a run's probe records in, its metrics out. They touch nothing but their
// arguments and the log.
//
// All results are milliseconds. The calculations reorder the records in place and turn unanswered
// ones into "loss ds". They are called only for runs with at least one accepted reply, of which
// none need be usable: kept-behaviours.md#without-a-usable-reply-averages-are-no-numbers

#ifndef IPSLA_SENDER_SENDER_METRIC_FUNCS_H_
#define IPSLA_SENDER_SENDER_METRIC_FUNCS_H_

#include <cstdint>
#include <list>
#include <span>

#include "sender/task_metrics.h"

namespace ipsla {

/// Clears `metrics` for a new run, keeping start_time; for jitter types the minima and maxima of
/// the three triples that the calculations update (latency SD, latency DS, RTT) then start at the
/// largest finite double and its negative. Echo types start at 0:
/// kept-behaviours.md#echo-minima-are-0
void ResetMetrics(SlaTestType type, SlaTaskMetrics* metrics);

/// "udp-echo" and "icmp-echo": RTT only.
void CalcEchoMetric(std::uint16_t id, std::span<SlaPacketRecord> records, SlaTaskMetrics* metrics);

/// "udp-jitter" and "udp-jitter-ntp". `responder_count` is the largest counter that a reply had
/// in the run, `budget_ms` the time a reply may take: "timeout" + ("interval" + 7) x "num-packets".
void CalcJitterMetrics(std::uint16_t id, std::span<SlaPacketRecord> records,
                       SlaTaskMetrics* metrics, std::uint32_t responder_count,
                       std::uint32_t budget_ms, bool ntp);

/// "icmp-jitter".
void CalcIcmpMetric(std::uint16_t id, std::span<SlaPacketRecord> records, SlaTaskMetrics* metrics);

/// The value kept as a jitter task's latest: the newest entry with its six jitter minima, averages
/// and maxima taken over every successful entry of the history. See
/// kept-behaviours.md#the-newest-run-counts-twice. `history` holds at least one entry. Without a
/// successful entry the six values are 0.
[[nodiscard]] SlaTaskMetrics AggregateHistory(const std::list<SlaTaskMetrics>& history);

}  // namespace ipsla

#endif  // IPSLA_SENDER_SENDER_METRIC_FUNCS_H_
