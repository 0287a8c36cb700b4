#include "ctl/watch_changes.h"

#include <algorithm>
#include <ctime>
#include <map>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "ctl/display_text.h"

namespace ipsla::ctl {
namespace {

using client::TaskStatistics;

const TaskView* FindTask(const std::vector<TaskView>& tasks, std::int32_t id) {
  const auto task = std::find_if(tasks.begin(), tasks.end(),
                                 [id](const TaskView& view) { return view.id == id; });
  return task == tasks.end() ? nullptr : &*task;
}

bool HasNews(const TaskView& before, const TaskView& after) {
  if (!before.last || !after.last) {
    return before.last.has_value() != after.last.has_value() || before.scheduled != after.scheduled;
  }
  const TaskStatistics& old_result = *before.last;
  const TaskStatistics& new_result = *after.last;
  return old_result.start_time != new_result.start_time ||
         old_result.finish_time != new_result.finish_time ||
         old_result.successful_count != new_result.successful_count ||
         old_result.failed_count != new_result.failed_count;
}

std::string FigureText(const TaskView& task) {
  if (!task.last) {
    return "";
  }
  const TaskFigures figures = Figures(*task.last);
  std::string text;
  const auto add = [&text](const char* name, const std::string& value, const char* unit) {
    if (value != kNoValue) {
      text += fmt::format(" {}={}{}", name, value, unit);
    }
  };
  add("rtt", MillisecondsText(figures.rtt), "ms");
  add("sd", MillisecondsText(figures.latency_sd), "ms");
  add("ds", MillisecondsText(figures.latency_ds), "ms");
  add("jitter-sd", MillisecondsText(figures.jitter_sd), "ms");
  add("jitter-ds", MillisecondsText(figures.jitter_ds), "ms");
  add("loss", NumberText(figures.loss, 1), "%");
  add("loss-sd", NumberText(figures.loss_sd, 1), "%");
  add("loss-ds", NumberText(figures.loss_ds, 1), "%");
  text += fmt::format(" ok={} failed={}", task.last->successful_count, task.last->failed_count);
  if (const std::string reason = client::ReasonOf(task); !reason.empty()) {
    text += fmt::format(" {}=\"{}\"", task.Failed() ? "error" : "remark", Printable(reason));
  }
  return text;
}

std::string TaskLine(const TaskView* before, const TaskView& task, const TaskRules& rules) {
  std::string line = fmt::format("task {}", task.id);
  if (task.last) {
    line += " " + TypeText(task.last->type);
    if (!task.last->vrf.empty()) {
      line += " vrf=" + Printable(task.last->vrf);
    }
    if (!task.last->dst_address.empty()) {
      line += " dst=" + Printable(task.last->dst_address);
    }
  }
  const std::string result = ResultCell(task, rules).text;
  const bool changed = before != nullptr && ResultCell(*before, rules).text != result;
  return line + " result=" + result + (changed ? "*" : "") + FigureText(task);
}

/// A list of results has no values; a run of any type that succeeded has those of the round trip.
bool LacksValues(const TaskView& task) {
  return task.last && !task.Failed() && !task.last->rtt;
}

}  // namespace

void MarkChanges(const TextTable& previous, TextTable* current) {
  std::map<std::string, const std::vector<TableCell>*> rows;
  for (const TableRow& row : previous.rows) {
    rows[row.cells.front().text] = &row.cells;
  }
  for (TableRow& table_row : current->rows) {
    auto& row = table_row.cells;
    const auto old_row = rows.find(row.front().text);
    if (old_row == rows.end()) {
      row.front().style = CellStyle::kChanged;
      continue;
    }
    for (std::size_t column = 0; column < row.size(); ++column) {
      if (column != kAgeColumn && row[column].text != (*old_row->second)[column].text) {
        row[column].style = CellStyle::kChanged;
      }
    }
  }
}

std::vector<std::string> ChangeLines(const std::vector<TaskView>& previous,
                                     const std::vector<TaskView>& current, const TaskRules& rules) {
  const std::string time =
      fmt::format("{:%Y-%m-%d %H:%M:%S} ", fmt::localtime(static_cast<std::time_t>(rules.now)));
  std::vector<std::string> lines;
  for (const TaskView& task : current) {
    const TaskView* before = FindTask(previous, task.id);
    if (before == nullptr || HasNews(*before, task)) {
      lines.push_back(time + TaskLine(before, task, rules));
    }
  }
  for (const TaskView& task : previous) {
    if (FindTask(current, task.id) == nullptr) {
      lines.push_back(time + fmt::format("task {} result=gone", task.id));
    }
  }
  return lines;
}

std::vector<TaskView> WithKnownValues(const std::vector<TaskView>& previous,
                                      std::vector<TaskView> current) {
  for (TaskView& task : current) {
    if (LacksValues(task)) {
      if (const TaskView* before = FindTask(previous, task.id)) {
        task = *before;
      }
    }
  }
  std::erase_if(current, LacksValues);
  return current;
}

}  // namespace ipsla::ctl
