#include "ctl/daemon_status.h"

#include <ctime>

#include <cjson/cJSON.h>
#include <fmt/chrono.h>
#include <fmt/format.h>

#include "ctl/display_text.h"
#include "ctl/json_out.h"

namespace ipsla::ctl {
namespace {

constexpr const char* kUnknownText = "unknown";

/// The time at the start of a line of the log, local time.
std::optional<std::int64_t> LineTime(std::string_view line) {
  constexpr std::size_t kTimeBytes = 19;
  std::tm fields{};
  fields.tm_isdst = -1;
  const std::string text(line.substr(0, kTimeBytes));
  if (strptime(text.c_str(), "%d-%m-%Y %T", &fields) == nullptr) {
    return std::nullopt;
  }
  const std::time_t time = std::mktime(&fields);
  return time < 0 ? std::nullopt : std::optional<std::int64_t>(time);
}

/// "2024-01-31 08:00:00 (3h05m ago)"
std::string MomentText(std::int64_t time, std::int64_t now) {
  return fmt::format("{:%Y-%m-%d %H:%M:%S} ({} ago)",
                     fmt::localtime(static_cast<std::time_t>(time)), AgeText(now - time));
}

std::string FileText(const std::string& file) {
  return file.empty() ? kUnknownText : Printable(file);
}

std::string ReloadText(const DaemonStatus& status, std::int64_t now) {
  if (!status.reload) {
    return status.log_read ? "none in the log" : kUnknownText;
  }
  return MomentText(status.reload->time, now) + (status.reload->refused ? ", refused" : "");
}

std::string CountText(const std::optional<std::size_t>& count) {
  return count ? std::to_string(*count) : kUnknownText;
}

std::string CountsText(const TaskCounts& tasks) {
  return fmt::format("tasks: configured {}, scheduled {}, failing {}", CountText(tasks.configured),
                     CountText(tasks.scheduled), tasks.failing);
}

std::string ManyText(const DaemonStatus& status) {
  const char* text =
      status.may_be_elsewhere
          ? "warning: {} daemons run, pid {}: in one network namespace they would "
            "share logs and port (root can tell)"
          : "warning: {} daemons run here, pid {}: they share the logs, and only one "
            "of them has the API's port";
  return fmt::format(fmt::runtime(text), status.pids.size(), fmt::join(status.pids, " "));
}

void AddText(cJSON* object, const char* key, const std::string& text) {
  cJSON_AddItemToObject(object, key,
                        text.empty() ? cJSON_CreateNull() : cJSON_CreateString(text.c_str()));
}

template <typename Number>
void AddNumber(cJSON* object, const char* key, const std::optional<Number>& number) {
  cJSON_AddItemToObject(
      object, key, number ? cJSON_CreateNumber(static_cast<double>(*number)) : cJSON_CreateNull());
}

}  // namespace

std::optional<TasksReload> LastReload(std::string_view log, std::int64_t since) {
  constexpr std::string_view kRequest = ": Recive commad SENDER_API_CSLD_PARSE_TASKS_CONFIG\n";
  const std::size_t request = log.rfind(kRequest);
  if (request == std::string_view::npos) {
    return std::nullopt;
  }
  const std::size_t newline = log.rfind('\n', request);
  const auto time = LineTime(log.substr(newline == std::string_view::npos ? 0 : newline + 1));
  if (!time || *time < since) {
    return std::nullopt;
  }
  const std::string_view rest = log.substr(request + kRequest.size());
  const std::string_view outcome = rest.substr(0, rest.find(": Recive commad "));
  return TasksReload{
      .time = *time,
      .refused = outcome.find(": ParseTaskConfigs() failed\n") != std::string_view::npos};
}

std::vector<TableCell> DaemonLines(const DaemonStatus& status, std::int64_t now) {
  const auto process = status.process.value_or(client::DaemonProcess{});
  const std::string pid = process.pid == 0 ? kUnknownText : std::to_string(process.pid);
  const std::string started =
      process.started ? MomentText(*process.started, now) : std::string(kUnknownText);
  std::vector<TableCell> lines{
      {fmt::format("daemon: version {}, pid {}, since {}",
                   Printable(status.version.value_or(kUnknownText)), pid, started)},
      {fmt::format("tasks file: {}, last reload: {}", FileText(process.tasks_file),
                   ReloadText(status, now))},
      {fmt::format("keychain file: {}", FileText(process.keychain_file))}};
  if (status.tasks) {
    lines.push_back({CountsText(*status.tasks),
                     status.tasks->failing > 0 ? CellStyle::kBad : CellStyle::kPlain});
  }
  if (status.pids.size() > 1) {
    lines.push_back({ManyText(status), CellStyle::kBad});
  }
  return lines;
}

JsonDocument DaemonObject(const DaemonStatus& status) {
  JsonDocument document(cJSON_CreateObject());
  cJSON* object = document.get();
  const auto process = status.process.value_or(client::DaemonProcess{});
  AddText(object, "version", status.version.value_or(""));
  AddNumber(object, "pid", process.pid == 0 ? std::nullopt : std::optional(process.pid));
  AddNumber(object, "started", process.started);
  AddText(object, "tasks-file", process.tasks_file);
  AddText(object, "keychain-file", process.keychain_file);
  AddNumber(object, "last-reload",
            status.reload ? std::optional(status.reload->time) : std::nullopt);
  cJSON_AddItemToObject(object, "last-reload-refused",
                        status.reload
                            ? cJSON_CreateBool(static_cast<cJSON_bool>(status.reload->refused))
                            : cJSON_CreateNull());
  const TaskCounts tasks = status.tasks.value_or(TaskCounts{});
  AddNumber(object, "configured", tasks.configured);
  AddNumber(object, "scheduled", tasks.scheduled);
  AddNumber(object, "failing", status.tasks ? std::optional(tasks.failing) : std::nullopt);
  AddIds(object, "pids", {status.pids.begin(), status.pids.end()});
  return document;
}

}  // namespace ipsla::ctl
