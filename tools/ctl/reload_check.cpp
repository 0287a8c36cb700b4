#include "ctl/reload_check.h"

#include <sys/stat.h>

#include <cerrno>
#include <ctime>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "config/config_file.h"
#include "config/task_parser.h"

namespace ipsla::ctl {
namespace {

using client::DaemonProcess;

bool IsSameFile(const std::string& a, const std::string& b) {
  struct stat first {};
  struct stat second {};
  return a == b || (stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 &&
                    first.st_dev == second.st_dev && first.st_ino == second.st_ino);
}

/// The file to look at: the one that the daemon would read, with an objection when another was
/// named; the named one where the daemon's is not known, empty with an objection when there is
/// none. `own`: the daemon's, by its own name.
std::string FileToCheck(const std::string& file, const std::string& own,
                        const DaemonProcess* daemon, ReloadCheck* check) {
  if (own.empty() || daemon == nullptr) {
    if (file.empty()) {
      check->objections.emplace_back(
          "which file the daemon reads cannot be told from here: name it");
    }
    return file;
  }
  std::string reachable = daemon->Reachable(own);
  if (!file.empty() && !IsSameFile(file, reachable)) {
    check->objections.push_back(fmt::format("the daemon reads {}, not {}", own, file));
  }
  return reachable;
}

/// Faults as objections and skipped elements.
void TakeFaults(const FileReport& report, const char* noun, ReloadCheck* check) {
  FileReport faults = report;
  faults.warnings.clear();
  faults.notes.clear();
  for (std::string& line : FindingLines(faults, noun)) {
    check->objections.push_back(std::move(line));
  }
  for (const Finding& finding : report.faults) {
    const bool known = !check->skipped.empty() && check->skipped.back().number == finding.number;
    if (finding.number > 0 && !known) {
      check->skipped.push_back({finding.number, finding.id, finding.fault.reason});
    }
  }
}

std::set<std::int32_t> TaskIds(const std::string& text) {
  std::set<std::int32_t> ids;
  const ConfigFile file = ReadConfigText(text, kTasksKey);
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, file.array) {
    if (const cJSON* id = cJSON_GetObjectItem(element, "sla-id"); cJSON_IsNumber(id) != 0) {
      ids.insert(static_cast<std::uint16_t>(id->valueint));
    }
  }
  return ids;
}

/// Whether a file was written after the daemon's start, which is known to the second only.
bool IsYounger(const std::string& file, std::int64_t started) {
  constexpr std::int64_t kInaccuracy = 1;
  struct stat status {};
  return stat(file.c_str(), &status) == 0 && status.st_mtim.tv_sec > started + kInaccuracy;
}

const char* NotTakenReason(const FileTask& task) {
  return task.key ? "not taken; the daemon may hold older keys: ip-sla-ctl reload keychain, then "
                    "reload tasks again"
                  : "not taken: the daemon's log says why, or it reads another file";
}

timespec RightNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

}  // namespace

ReloadCheck CheckTasksReload(const std::string& file, const DaemonProcess* daemon) {
  ReloadCheck check;
  const std::string own = daemon == nullptr ? "" : daemon->tasks_file;
  const std::string name = FileToCheck(file, own, daemon, &check);
  if (name.empty()) {
    return check;
  }
  KeychainStorage keys;
  const bool has_keychain = daemon != nullptr && !daemon->keychain_file.empty();
  bool has_keys = false;
  if (has_keychain) {
    const std::string keychain = daemon->Reachable(daemon->keychain_file);
    has_keys = CheckKeychain(keychain, ReadConfigInput(keychain), nullptr, &keys).elements > 0 ||
               !keys.empty();
  }
  SystemHost host(daemon == nullptr ? 0 : daemon->pid);
  const ConfigInput input = ReadConfigInput(name);
  TakeFaults(
      CheckTasks(name, input, has_keys ? &keys : nullptr, {.now = RightNow(), .host = &host}),
      "task", &check);
  check.ids = TaskIds(input.text);
  check.tasks = FaultlessTasks(input.text);
  if (daemon != nullptr) {
    check.warning = KeychainFirstWarning(*daemon, check.tasks);
  }
  return check;
}

ReloadCheck CheckKeychainReload(const std::string& file, const DaemonProcess* daemon) {
  ReloadCheck check;
  const std::string own = daemon == nullptr ? "" : daemon->keychain_file;
  const std::string name = FileToCheck(file, own, daemon, &check);
  if (name.empty()) {
    return check;
  }
  KeychainStorage keys;
  const ConfigInput input = ReadConfigInput(name);
  const FileReport report = CheckKeychain(name, input, nullptr, &keys);
  TakeFaults(report, "key", &check);
  // What only this user may not read, the daemon may.
  const bool forbidden = input.error == EACCES || input.error == EPERM;
  check.would_end_daemon =
      !report.faults.empty() && report.faults.front().number == 0 && !forbidden;
  for (const auto& [id, key] : keys) {
    check.ids.insert(id);
  }
  if (!input.fault && daemon != nullptr && !daemon->tasks_file.empty()) {
    const ConfigInput tasks = ReadConfigInput(daemon->Reachable(daemon->tasks_file));
    for (std::string& line : TasksWithoutKey(tasks.text, keys)) {
      check.objections.push_back(std::move(line));
    }
  }
  return check;
}

std::vector<std::string> TasksWithoutKey(const std::string& tasks_text,
                                         const KeychainStorage& keys) {
  std::vector<std::string> lines;
  const ConfigFile file = ReadConfigText(tasks_text, kTasksKey);
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, file.array) {
    const TaskCheck task = CheckTask(element, {}, nullptr, ConfiguredInterface);
    const SlaAuthConfig& auth = task.config.auth;
    if (task.faults.empty() && auth.mode == SlaAuthMode::kKeychain && !keys.contains(auth.key_id)) {
      lines.push_back(fmt::format("task {} uses key {}, which the keychain would not have",
                                  task.config.sla_id, auth.key_id));
    }
  }
  return lines;
}

std::map<std::int32_t, FileTask> FaultlessTasks(const std::string& tasks_text) {
  std::map<std::int32_t, FileTask> tasks;
  const ConfigFile file = ReadConfigText(tasks_text, kTasksKey);
  std::size_t number = 0;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, file.array) {
    ++number;
    const TaskCheck task = CheckTask(element, {}, nullptr, ConfiguredInterface);
    if (task.faults.empty() && !task.abandoned) {
      const SlaAuthConfig& auth = task.config.auth;
      FileTask& entry = tasks[task.config.sla_id];
      entry = {.number = number};
      if (auth.mode == SlaAuthMode::kKeychain) {
        entry.key = auth.key_id;
      }
    }
  }
  return tasks;
}

std::vector<SkippedElement> TasksNotTaken(const ReloadCheck& check,
                                          const client::StatusMap& configured) {
  std::set<std::size_t> known;
  for (const SkippedElement& element : check.skipped) {
    known.insert(element.number);
  }
  std::map<std::size_t, SkippedElement> not_taken;
  for (const auto& [id, task] : check.tasks) {
    if (!configured.contains(id) && !known.contains(task.number)) {
      not_taken[task.number] = {task.number, id, NotTakenReason(task)};
    }
  }
  std::vector<SkippedElement> elements;
  elements.reserve(not_taken.size());
  for (auto& [number, element] : not_taken) {
    elements.push_back(std::move(element));
  }
  return elements;
}

std::string KeychainFirstWarning(const DaemonProcess& daemon,
                                 const std::map<std::int32_t, FileTask>& tasks) {
  std::vector<std::int32_t> with_key;
  for (const auto& [id, task] : tasks) {
    if (task.key) {
      with_key.push_back(id);
    }
  }
  const bool both_changed = daemon.started && !daemon.tasks_file.empty() &&
                            !daemon.keychain_file.empty() &&
                            IsYounger(daemon.Reachable(daemon.tasks_file), *daemon.started) &&
                            IsYounger(daemon.Reachable(daemon.keychain_file), *daemon.started);
  if (with_key.empty() || !both_changed) {
    return "";
  }
  return fmt::format(
      "warning: {} changed since the daemon's start, and task{} {} use{} its keys: unless the "
      "daemon has read it since, \"ip-sla-ctl reload keychain\" goes first",
      daemon.keychain_file, with_key.size() == 1 ? "" : "s", fmt::join(with_key, " "),
      with_key.size() == 1 ? "s" : "");
}

}  // namespace ipsla::ctl
