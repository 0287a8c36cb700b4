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

/// The file to look at; empty with an objection when the daemon would read another one or which
/// one is not known. `own`: the daemon's, by its own name.
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
    return "";
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

}  // namespace ipsla::ctl
