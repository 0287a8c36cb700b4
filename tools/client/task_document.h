// Results of tasks as one JSON document for programs: what `ip-sla-ctl show --json` prints and
// whatever else hands results on. Pure: values in, JSON out. docs/ip-sla-ctl.md describes every
// field, docs/schema/task-results.schema.json is its schema.
//
// The rule of the document: a number is a measurement, a count or a time. What was not measured is
// null, never 0: every value of a failed run, every group that the type does not measure, values
// that no calculation fills in, and what needs a result when there is none. Every key is always
// there.

#ifndef IPSLA_TOOLS_CLIENT_TASK_DOCUMENT_H_
#define IPSLA_TOOLS_CLIENT_TASK_DOCUMENT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/clock_state.h"
#include "client/task_view.h"
#include "config/json_text.h"

namespace ipsla::client {

/// What a document says beside the tasks.
struct DocumentContext {
  std::int64_t now = 0;                     ///< seconds since the epoch; ages count to here
  std::optional<std::int64_t> max_age_s{};  ///< results older than this are stale as well
  ClockState clock{};                       ///< of this machine
  std::vector<std::int32_t> unknown_ids{};  ///< ids that were asked for and that no task has
};

/// One task object. The caller asked the daemon for every group that the type measures
/// (MeasuredGroups); a group that was not asked for comes out as not measured.
[[nodiscard]] JsonDocument TaskObject(const TaskView& task, const DocumentContext& context);

/// {"time", "clock", "tasks": [...]}, and "unknown": [ids] when there are any.
[[nodiscard]] JsonDocument TasksDocument(const std::vector<TaskView>& tasks,
                                         const DocumentContext& context);

/// {"synchronised": bool, "estimated-error-ms": number, "maximum-error-ms": number}, each or null.
[[nodiscard]] JsonDocument ClockObject(const ClockState& clock);

/// A document as one compact line, without a newline.
[[nodiscard]] std::string JsonLine(const cJSON* document);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_TASK_DOCUMENT_H_
