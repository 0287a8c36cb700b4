#include <algorithm>
#include <charconv>
#include <ctime>

#include <fmt/format.h>

#include "client/request_texts.h"
#include "client/task_document.h"
#include "ctl/commands.h"
#include "ctl/display_text.h"
#include "ctl/task_groups.h"
#include "ctl/task_order.h"
#include "ctl/terminal.h"

namespace ipsla::ctl {
namespace {

using client::TaskAnswer;

TaskRules RulesOf(const ShowOptions& options) {
  TaskRules rules{.now = Now(), .stale_fails = !options.max_age.empty()};
  std::int64_t seconds = 0;
  const char* end = options.max_age.data() + options.max_age.size();
  if (std::from_chars(options.max_age.data(), end, seconds).ec == std::errc{}) {
    rules.max_age_s = seconds;
  }
  return rules;
}

void Print(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    fmt::print("{}\n", line);
  }
}

void PrintDetails(const std::vector<TaskView>& tasks, const TaskRules& rules) {
  const client::ClockState clock = client::ReadClockState();
  const TableLayout layout = StandardOutput().Layout();
  for (const TaskView& task : tasks) {
    if (&task != &tasks.front()) {
      fmt::print("\n");
    }
    Print(TaskDetails(task, rules, clock, layout));
  }
}

void PrintTable(const std::vector<TaskView>& tasks, const TaskRules& rules) {
  const TableLayout layout = StandardOutput().Layout();
  TextTable table = TaskTable(tasks, rules);
  AddHints(tasks, &table);
  Print(RenderTable(table, layout));
  const std::string remark = ClockRemark(tasks, client::ReadClockState());
  if (!remark.empty()) {
    Print(WrapText(remark, layout.width));
  }
}

std::string NothingText(const ShowOptions& options) {
  if (options.failing_only) {
    return "no task is failing";
  }
  return options.choice.selection.all ? "no task is configured" : "no task has a result yet";
}

/// The daemon's replies as they came, one per line.
int ShowRaw(const CommonOptions& common, const client::TaskSelection& selection) {
  const client::SenderClient sender(common.client);
  TaskAnswer answer;
  std::vector<std::string> replies;
  if (selection.ids.empty()) {
    replies.push_back(sender.Api().Query(ApiCommand::kGetAllActiveTaskStatistics,
                                         client::ActiveStatisticsRequest(MetricGroupNames())));
  } else {
    const client::StatusMap configured = sender.Statuses(selection.ids);
    std::set<std::int32_t> known;
    for (const std::int32_t id : selection.ids) {
      configured.contains(id) ? void(known.insert(id)) : answer.unknown.push_back(id);
    }
    for (const auto& request : client::StatisticsRequests(known, MetricGroupNames())) {
      replies.push_back(sender.Api().Query(ApiCommand::kGetTaskStatistics, request));
    }
  }
  client::StatisticsMap results;
  for (const std::string& reply : replies) {
    fmt::print("{}\n", reply);
    (void)client::ReadStatistics(reply, &results);  // what is no document is for the reader to see
  }
  for (const auto& [id, result] : results) {
    answer.tasks.push_back({.id = id, .last = result});
  }
  ReportUnknown(answer.unknown);
  return AnswerStatus(answer, {});
}

}  // namespace

std::int64_t Now() {
  return static_cast<std::int64_t>(std::time(nullptr));
}

void ReportUnknown(const std::vector<std::int32_t>& ids) {
  for (const std::int32_t id : ids) {
    fmt::print(stderr, "ip-sla-ctl: no task {} is configured\n", id);
  }
}

int AnswerStatus(const TaskAnswer& answer, const TaskRules& rules) {
  if (!answer.unknown.empty()) {
    return kExitUsage;
  }
  const bool fails =
      std::any_of(answer.tasks.begin(), answer.tasks.end(),
                  [&rules](const TaskView& task) { return CountsAsFailing(task, rules); });
  return fails ? kExitFailing : kExitFine;
}

int RunShow(const CommonOptions& common, const ShowOptions& options) {
  if (options.raw) {
    return ShowRaw(common, options.choice.selection);
  }
  const TaskSource source(common.client, options.choice);
  const bool needs_all = common.json || options.metrics;
  TaskAnswer answer =
      source.Query(needs_all ? MetricGroupNames() : TableGroups(StandardOutput().width));
  const TaskRules rules = RulesOf(options);
  const int status = AnswerStatus(answer, rules);
  if (options.failing_only) {
    std::erase_if(answer.tasks,
                  [&rules](const TaskView& task) { return !CountsAsFailing(task, rules); });
  }
  SortTasks(SortKeyOf(options.sort, common.json), rules, &answer.tasks);
  if (common.json) {
    const client::DocumentContext context{.now = rules.now,
                                          .max_age_s = rules.max_age_s,
                                          .clock = client::ReadClockState(),
                                          .unknown_ids = answer.unknown};
    fmt::print("{}\n", client::JsonLine(client::TasksDocument(answer.tasks, context).get()));
  } else if (answer.tasks.empty()) {
    if (answer.unknown.empty()) {
      fmt::print("{}\n", NothingText(options));
    }
  } else if (options.metrics) {
    PrintDetails(answer.tasks, rules);
  } else {
    PrintTable(answer.tasks, rules);
  }
  source.WarnOfHiddenTasks();
  ReportUnknown(answer.unknown);
  return status;
}

}  // namespace ipsla::ctl
