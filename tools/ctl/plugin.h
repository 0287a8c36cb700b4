// The one line of `probe`, as monitoring systems read it from their plugins. Pure.

#ifndef IPSLA_TOOLS_CTL_PLUGIN_H_
#define IPSLA_TOOLS_CTL_PLUGIN_H_

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/task_view.h"
#include "ctl/thresholds.h"

namespace ipsla::ctl {

/// Also the exit status.
enum class PluginState : std::uint8_t { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

/// "OK", "WARNING", "CRITICAL", "UNKNOWN".
[[nodiscard]] const char* PluginStateText(PluginState state);

/// One figure with its limits, as text: 'rtt=1.2ms;50;100;;'.
struct PerformanceValue {
  std::string label;
  double value = 0;
  std::string unit;
  std::string limits;  ///< "WARN;CRIT;MIN;MAX"
};

/// What a monitoring system is told.
struct PluginResult {
  PluginState state = PluginState::kUnknown;
  std::string text;  ///< without the state
  std::vector<PerformanceValue> performance;
};

/// Judges the last result of a task. A failed run is critical, a task without a result unknown; so
/// are a run without usable replies, and a threshold whose value was not measured, unless another
/// threshold is exceeded.
[[nodiscard]] PluginResult JudgeTask(const TaskView& task, const Thresholds& warning,
                                     const Thresholds& critical, std::int64_t now);

/// "OK - task 3 udp-jitter: rtt 1.2 ms, loss sd 0% ds 0% | rtt=1.2ms;50;100;; ..."
[[nodiscard]] std::string PluginLine(const PluginResult& result);

/// {"state", "text", "values": {label: number}}
[[nodiscard]] std::string PluginJson(const PluginResult& result);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_PLUGIN_H_
