#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "ctl/display_text.h"
#include "ctl/hints.h"
#include "ctl/task_view.h"

namespace ipsla::ctl {
namespace {

using client::TaskPlan;
using client::TaskStatistics;
using client::Value;

TableCell TextCell(const std::string& text) {
  return {text.empty() ? kNoValue : Printable(text)};
}

/// "SD/DS", or kNoValue when there is neither.
std::string BothWays(const std::string& sd, const std::string& ds) {
  return sd == kNoValue && ds == kNoValue ? kNoValue : sd + "/" + ds;
}

Value Worse(const Value& sd, const Value& ds) {
  return sd && ds ? Value(std::max(*sd, *ds)) : sd ? sd : ds;
}

std::string PercentText(const Value& value) {
  return value ? NumberText(value, 1) + "%" : kNoValue;
}

std::string RunsText(const TaskView& task, std::int64_t TaskStatistics::*count) {
  return task.last ? std::to_string((*task.last).*count) : kNoValue;
}

std::vector<TableColumn> Columns() {
  constexpr std::size_t kLeastType = 11;  // "udp-jitter…" is udp-jitter-ntp and nothing else
  constexpr std::size_t kLeastVrf = 4;
  constexpr std::size_t kLeastDestination = 9;
  return {{.header = "ID", .right_aligned = true},
          {.header = "TYPE", .rank = 7, .least_width = kLeastType},
          {.header = "VRF", .rank = 10, .least_width = kLeastVrf},
          {.header = "DEST", .rank = 3, .least_width = kLeastDestination},
          {.header = "RESULT", .rank = 2},
          {.header = "AGE", .right_aligned = true, .rank = 6},
          {.header = "RTT", .right_aligned = true, .rank = 5},
          {.header = "ONE-WAY sd/ds", .right_aligned = true, .rank = 8},
          {.header = "JITTER", .right_aligned = true, .rank = 9},
          {.header = "LOSS", .right_aligned = true, .rank = 4},
          {.header = "LOSS sd/ds", .right_aligned = true, .rank = 13, .optional = true},
          {.header = "JITTER sd/ds", .right_aligned = true, .rank = 14, .optional = true},
          {.header = "OK", .right_aligned = true, .rank = 12, .optional = true},
          {.header = "FAILED", .right_aligned = true, .rank = 11, .optional = true}};
}

TableRow RowOf(const TaskView& task, const TaskRules& rules) {
  const TaskFigures figures = task.last ? Figures(*task.last) : TaskFigures{};
  const TaskPlan plan = task.plan.value_or(TaskPlan{});
  const bool from_result = task.last && task.last->type != SlaTestType::kNone;
  const auto& vrf = from_result ? task.last->vrf : plan.vrf;
  const auto& destination = from_result ? task.last->dst_address : plan.dst_address;
  const auto ms = MillisecondsText;
  TableRow row{{{std::to_string(task.id)},
                {TypeText(task.Type())},
                TextCell(vrf),
                TextCell(destination),
                ResultCell(task, rules),
                AgeCell(task, rules),
                {ms(figures.rtt)},
                {BothWays(ms(figures.latency_sd), ms(figures.latency_ds))},
                {ms(Worse(figures.jitter_sd, figures.jitter_ds))},
                {PercentText(figures.loss)},
                {BothWays(PercentText(figures.loss_sd), PercentText(figures.loss_ds))},
                {BothWays(ms(figures.jitter_sd), ms(figures.jitter_ds))},
                {RunsText(task, &TaskStatistics::successful_count)},
                {RunsText(task, &TaskStatistics::failed_count)}}};
  row.notes = TaskNotes(task, rules);
  return row;
}

bool IsStale(const TaskView& task, const TaskRules& rules) {
  return client::FreshnessOf(task, rules.now, rules.max_age_s).stale.value_or(false);
}

}  // namespace

bool CountsAsFailing(const TaskView& task, const TaskRules& rules) {
  return task.Failed() || (rules.stale_fails && IsStale(task, rules));
}

std::string TypeText(SlaTestType type) {
  return type == SlaTestType::kNone ? kNoValue : TestTypeToString(type);
}

TableCell ResultCell(const TaskView& task, const TaskRules& rules) {
  if (!task.last) {
    return {task.scheduled ? "not run" : "off"};
  }
  if (task.last->Failed()) {
    return {task.last->status == "fail" ? "FAIL" : Printable(task.last->status), CellStyle::kBad};
  }
  if (IsStale(task, rules)) {
    return {"stale", rules.stale_fails ? CellStyle::kBad : CellStyle::kDoubtful};
  }
  return {"ok", CellStyle::kGood};
}

TableCell AgeCell(const TaskView& task, const TaskRules& rules) {
  const auto age = client::AgeOf(task, rules.now);
  return {age ? AgeText(*age) : kNoValue};
}

std::vector<TableCell> TaskNotes(const TaskView& task, const TaskRules& rules) {
  std::vector<TableCell> notes;
  if (const std::string reason = client::ReasonOf(task); !reason.empty()) {
    notes.push_back({Printable(reason), task.Failed() ? CellStyle::kBad : CellStyle::kDoubtful});
  }
  const auto fresh = client::FreshnessOf(task, rules.now, rules.max_age_s);
  if (fresh.stale.value_or(false)) {
    notes.push_back({"stale: " + fresh.reason, CellStyle::kDoubtful});
  }
  return notes;
}

TextTable TaskTable(const std::vector<TaskView>& tasks, const TaskRules& rules) {
  TextTable table{Columns(), {}};
  for (const TaskView& task : tasks) {
    table.rows.push_back(RowOf(task, rules));
  }
  return table;
}

void AddHints(const std::vector<TaskView>& tasks, TextTable* table) {
  std::set<std::string> given;
  for (std::size_t row = 0; row < tasks.size(); ++row) {
    const std::string hint(HintFor(client::ReasonOf(tasks[row]), tasks[row].Type()));
    if (!hint.empty() && given.insert(hint).second) {
      // Directly below the reason, which is the first note.
      auto& notes = table->rows[row].notes;
      notes.insert(notes.begin() + 1, {"hint: " + hint});
    }
  }
}

std::string ClockRemark(const std::vector<TaskView>& tasks, const client::ClockState& clock) {
  const bool has_one_way = std::any_of(tasks.begin(), tasks.end(), [](const TaskView& task) {
    return task.last && Figures(*task.last).latency_sd;
  });
  if (clock.synchronised.value_or(true) || !has_one_way) {
    return "";
  }
  return "the clock of this machine is not synchronised: one-way values may be wrong";
}

}  // namespace ipsla::ctl
