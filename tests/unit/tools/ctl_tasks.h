// Two tasks as the daemon reports them, for the tests of what ctl makes of them.

#ifndef IPSLA_TESTS_UNIT_TOOLS_CTL_TASKS_H_
#define IPSLA_TESTS_UNIT_TOOLS_CTL_TASKS_H_

#include "ctl/task_view.h"

namespace ipsla::test {

/// 2023-11-14 22:13:34 UTC.
inline constexpr std::int64_t kNow = 1700000014;

/// Task 3, udp-jitter in VRF blue, its last run 12 s old, with losses in both directions.
inline ctl::TaskView JitterTask() {
  client::TaskStatistics last;
  last.id = 3;
  last.status = "successful";
  last.start_time = kNow - 14;
  last.finish_time = kNow - 12;
  last.successful_count = 7;
  last.failed_count = 1;
  last.vrf = "blue";
  last.type = SlaTestType::kUdpJitter;
  last.src_address = "10.0.0.1";
  last.dst_address = "10.0.0.2";
  last.interface = "eth0";
  last.transmitted = 10;
  last.sd_samples = 9;
  last.ds_samples = 7;
  last.sd_packets = 10;
  last.ds_packets = 7;
  last.rtt = {1.0, 1.2, 1.5};
  last.latency = {{0.4, 0.5, 0.6, std::nullopt}, {std::nullopt, 0.7, 0.8, std::nullopt}};
  last.jitter = {{0.01, 0.02, 0.03, 0.04}, {0.01, 0.02, 0.03, 0.05}};
  last.loss = {1, 2, 10.0, 22.22, 6, 0, 8};
  last.out_of_sequence = {4, 5};
  return {.id = 3, .last = last};
}

/// Task 5, udp-echo, whose last run failed.
inline ctl::TaskView FailedTask() {
  client::TaskStatistics last;
  last.id = 5;
  last.status = "fail";
  last.error = "timeout, no samples";
  last.start_time = kNow - 194;
  last.finish_time = kNow - 185;
  last.failed_count = 4;
  last.type = SlaTestType::kUdpEcho;
  last.dst_address = "10.0.0.9";
  last.rtt = {0.0, 0.0, 0.0};
  last.loss = client::LossValues{};
  return {.id = 5, .last = last};
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_TOOLS_CTL_TASKS_H_
