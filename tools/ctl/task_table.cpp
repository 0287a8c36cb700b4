#include "ctl/display_text.h"
#include "ctl/task_view.h"

namespace ipsla::ctl {
namespace {

using client::TaskStatistics;
using client::Value;

TableCell TextCell(const std::string& text) {
  return {text.empty() ? kNoValue : Printable(text)};
}

std::vector<TableCell> TaskRow(const TaskView& task, std::int64_t now) {
  const TaskStatistics last = task.last.value_or(TaskStatistics{});
  const TaskFigures figures = task.last ? Figures(last) : TaskFigures{};
  std::vector<TableCell> row{{std::to_string(task.id)},  {TypeText(last)}, TextCell(last.vrf),
                             TextCell(last.dst_address), ResultCell(task), AgeCell(task, now)};
  for (const Value& value : {figures.rtt, figures.latency_sd, figures.latency_ds, figures.jitter_sd,
                             figures.jitter_ds}) {
    row.push_back({MillisecondsText(value)});
  }
  for (const Value& value : {figures.loss, figures.loss_sd, figures.loss_ds}) {
    row.push_back({NumberText(value, 1)});
  }
  row.push_back({task.last ? std::to_string(last.successful_count) : kNoValue});
  row.push_back({task.last ? std::to_string(last.failed_count) : kNoValue});
  row.push_back(ErrorCell(task));
  return row;
}

}  // namespace

std::string TypeText(const TaskStatistics& task) {
  return task.type == SlaTestType::kNone ? kNoValue : TestTypeToString(task.type);
}

TableCell ResultCell(const TaskView& task) {
  if (!task.last) {
    return {task.scheduled ? "not run" : "off"};
  }
  if (!task.last->Failed()) {
    return {"ok", CellStyle::kGood};
  }
  return {task.last->status == "fail" ? "FAIL" : Printable(task.last->status), CellStyle::kBad};
}

TableCell ErrorCell(const TaskView& task) {
  if (!task.last || task.last->error.empty()) {
    return {kNoValue};
  }
  return {Printable(task.last->error), CellStyle::kBad};
}

TableCell AgeCell(const TaskView& task, std::int64_t now) {
  return {task.last ? AgeText(now - task.last->finish_time) : kNoValue};
}

TextTable TaskTable(const std::vector<TaskView>& tasks, std::int64_t now) {
  TextTable table;
  table.columns = {{"ID", true},
                   {"TYPE"},
                   {"VRF"},
                   {"DESTINATION"},
                   {"RESULT"},
                   {"AGE", true},
                   {"RTT/ms", true},
                   {"SD/ms", true},
                   {"DS/ms", true},
                   {"JITTER-SD/ms", true},
                   {"JITTER-DS/ms", true},
                   {"LOSS/%", true},
                   {"LOSS-SD/%", true},
                   {"LOSS-DS/%", true},
                   {"OK", true},
                   {"FAILED", true},
                   {"ERROR"}};
  for (const TaskView& task : tasks) {
    table.rows.push_back(TaskRow(task, now));
  }
  return table;
}

}  // namespace ipsla::ctl
