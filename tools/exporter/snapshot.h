// What one question to the daemon brought. A value: shared between threads once it is filled.

#ifndef IPSLA_TOOLS_EXPORTER_SNAPSHOT_H_
#define IPSLA_TOOLS_EXPORTER_SNAPSHOT_H_

#include <chrono>
#include <memory>
#include <string>

#include "client/clock_state.h"
#include "client/task_plan.h"
#include "client/task_results.h"

namespace ipsla::exporter {

/// One answer of the daemon, and what was read along with it.
struct Snapshot {
  bool up = false;              ///< the daemon answered, in time
  std::string error;            ///< why not
  client::StatisticsMap tasks;  ///< empty unless `up`
  client::TaskPlans plans;      ///< empty without a tasks file
  std::shared_ptr<const std::string>
      document;                              ///< for programs: what `ip-sla-ctl show --json` prints
  client::ClockState clock;                  ///< when the answer came
  std::chrono::duration<double> duration{};  ///< of the question
  std::chrono::steady_clock::time_point asked_at;     ///< begin of the question
  std::chrono::system_clock::time_point answered_at;  ///< its end
};
/// Shared by all who asked.
using SnapshotPtr = std::shared_ptr<const Snapshot>;

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_SNAPSHOT_H_
