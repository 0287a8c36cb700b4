// A second, naive calculation of the jitter metrics for comparison. It works from whole-run
// descriptions (which replies count, which of them set a new maximum) where the product walks the
// records with running values, and it never changes a record. Counters of the largest possible
// value (2^32 - 1) are outside its domain.

#ifndef IPSLA_TESTS_UNIT_SENDER_METRIC_MODEL_H_
#define IPSLA_TESTS_UNIT_SENDER_METRIC_MODEL_H_

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "sender/task_metrics.h"

namespace ipsla::test {

/// `ring` in slot order, as a run leaves it. The result holds what the calculation writes into
/// reset metrics.
SlaTaskMetrics ModelUdpJitter(const std::vector<SlaPacketRecord>& ring,
                              std::uint32_t responder_count, std::uint32_t budget_ms, bool ntp);
SlaTaskMetrics ModelIcmpJitter(const std::vector<SlaPacketRecord>& ring);

/// The state each record must have after the calculation, in slot order.
std::vector<SlaPacketState> ModelUdpStates(const std::vector<SlaPacketRecord>& ring,
                                           std::uint32_t budget_ms);

/// Every field equal; doubles to twelve digits, not-a-number equal to itself.
testing::AssertionResult SameMetrics(const SlaTaskMetrics& expected, const SlaTaskMetrics& actual);

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SENDER_METRIC_MODEL_H_
