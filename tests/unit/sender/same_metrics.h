// Metrics compared as a whole.

#ifndef IPSLA_TESTS_UNIT_SENDER_SAME_METRICS_H_
#define IPSLA_TESTS_UNIT_SENDER_SAME_METRICS_H_

#include <gtest/gtest.h>

#include "sender/task_metrics.h"

namespace ipsla::test {

/// Every field equal; doubles to twelve digits, not-a-number equal to itself.
testing::AssertionResult SameMetrics(const SlaTaskMetrics& expected, const SlaTaskMetrics& actual);

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SENDER_SAME_METRICS_H_
