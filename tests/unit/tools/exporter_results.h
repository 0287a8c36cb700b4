// Results as the daemon reports them, one for each kind of task, for the tests of the exporter.

#ifndef IPSLA_TESTS_UNIT_TOOLS_EXPORTER_RESULTS_H_
#define IPSLA_TESTS_UNIT_TOOLS_EXPORTER_RESULTS_H_

#include "client/task_results.h"

namespace ipsla::test {

/// A successful run of 10 probes, 8 of them answered; the values that a type does not measure are
/// the zeros that the daemon writes.
inline client::TaskStatistics Result(std::int32_t id, SlaTestType type) {
  client::TaskStatistics task;
  task.id = id;
  task.status = "successful";
  task.start_time = 1700000000;
  task.finish_time = 1700000002;
  task.successful_count = 7;
  task.failed_count = 1;
  task.type = type;
  task.src_address = "10.0.0.1";
  task.dst_address = "10.0.0.2";
  task.sd_packets = 10;
  task.ds_packets = 8;
  task.rtt = {0.0, 2.0, 3.0};
  task.latency = client::TwoWayValues{{0.0, 0.0, 0.0, {}}, {0.0, 0.0, 0.0, {}}};
  task.jitter = client::TwoWayValues{{0.0, 0.0, 0.0, 0.0}, {0.0, 0.0, 0.0, 0.0}};
  task.loss = client::LossValues{0, 0, 0.0, 0.0, 0, 0, 0};
  if (IsJitterType(type)) {
    task.rtt = {1.0, 2.0, 3.0};
    task.latency = {{0.25, 0.5, 0.75, {}}, {1.25, 1.5, 1.75, {}}};
    task.jitter = client::TwoWayValues{{0.0, 0.0, 0.0, 0.125}, {0.0, 0.0, 0.0, 0.375}};
    task.loss = {1, 1, 10.0, 12.5, 3, 0, 5};
  }
  return task;
}

/// The same of a run that failed, its values the zeros that the daemon writes.
inline client::TaskStatistics FailedResult(std::int32_t id, SlaTestType type,
                                           const std::string& reason) {
  client::TaskStatistics task = Result(id, type);
  task.status = "fail";
  task.error = reason;
  task.sd_packets = task.ds_packets = 0;
  task.rtt = {0.0, 0.0, 0.0};
  task.loss = client::LossValues{0, 0, 0.0, 0.0, 0, 0, 0};
  return task;
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_TOOLS_EXPORTER_RESULTS_H_
