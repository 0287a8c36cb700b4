#include "ctl/check.h"

#include <map>
#include <utility>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "config/config_file.h"
#include "config/keychain.h"
#include "ctl/task_warnings.h"

namespace ipsla::ctl {
namespace {

std::optional<std::int32_t> IdOf(const cJSON* element, const char* key) {
  const cJSON* id = cJSON_GetObjectItem(element, key);
  return cJSON_IsNumber(id) != 0 ? std::optional<std::int32_t>(id->valueint) : std::nullopt;
}

/// Nothing when the file as a whole is fine.
std::optional<std::string> FileFault(const ConfigFile& file, const char* array) {
  switch (file.fault) {
    case ConfigFileFault::kNone:
      return std::nullopt;
    case ConfigFileFault::kNoName:
      return "the file name is empty";
    case ConfigFileFault::kUnreadable:
      return "the file cannot be read";
    case ConfigFileFault::kNoArray:
      return fmt::format("there is no array \"{}\"", array);
    case ConfigFileFault::kNotJson:
      break;
  }
  if (file.json.error_line == 0) {
    return "not valid JSON";
  }
  return fmt::format("not valid JSON at line {}, column {}", file.json.error_line,
                     file.json.error_column);
}

/// Secrets are not shown, not even wrong ones.
TaskFault WithoutSecret(TaskFault fault) {
  constexpr std::string_view kSecret = "key-string";
  if (fault.key.ends_with(kSecret) && !fault.value.empty()) {
    fault.value = "(hidden)";
  }
  return fault;
}

/// About a whole file, or about an element without an id.
Finding ReasonOnly(std::string reason) {
  return {.fault = {"", "", std::move(reason)}};
}

FileReport CheckKeychain(const std::string& name, KeychainStorage* keys) {
  FileReport report{.name = name};
  const ConfigFile file = ReadConfigFile(name, kKeychainKey);
  if (const auto fault = FileFault(file, kKeychainKey)) {
    report.faults.push_back(ReasonOnly(*fault));
    return report;
  }
  for (const KeyFault& fault : ReadKeys(file.array, keys)) {
    report.faults.push_back({fault.position + 1, fault.id, {"", "", fault.reason}});
  }
  report.elements = static_cast<std::size_t>(cJSON_GetArraySize(file.array));
  report.accepted = keys->size();
  return report;
}

void CheckCpus(const cJSON* root, FileReport* report) {
  const auto warn = [report](const cJSON* value, std::string reason) {
    report->warnings.push_back({.fault = {"cpus", ShortJsonText(value), std::move(reason)}});
  };
  const cJSON* cpus = cJSON_GetObjectItem(root, "cpus");
  if (cJSON_IsArray(cpus) == 0 || cJSON_GetArraySize(cpus) == 0) {
    warn(cpus, "names no CPU: the daemon starts no worker threads and runs no test");
    return;
  }
  const cJSON* cpu = nullptr;
  cJSON_ArrayForEach(cpu, cpus) {
    const int number = cJSON_IsNumber(cpu) != 0 ? cpu->valueint : 0;
    if (cJSON_IsNumber(cpu) == 0 || number != static_cast<std::uint8_t>(number)) {
      warn(cpu, fmt::format("counts as CPU {}", static_cast<std::uint8_t>(number)));
    }
  }
}

/// Checks the tasks one after the other, as each depends on those before.
class TasksChecker {
 public:
  TasksChecker(FileReport* report, const KeychainStorage* keychain, const timespec& now)
      : report_(*report), keychain_(keychain), now_(now) {}

  void Check(const cJSON* element) {
    const std::size_t number = ++report_.elements;
    const auto id = IdOf(element, "sla-id");
    const TaskCheck check = CheckTask(element, accepted_, keychain_, ConfiguredInterface);
    for (const TaskFault& fault : check.faults) {
      report_.faults.push_back({number, id, WithoutSecret(fault)});
    }
    if (!check.faults.empty()) {
      return;
    }
    for (const TaskFault& warning : TaskWarnings(element, check.config, keychain_, now_)) {
      report_.warnings.push_back({number, id, warning});
    }
    Accept(number, id, check.config);
  }

 private:
  void Accept(std::size_t number, const std::optional<std::int32_t>& id,
              const SlaTaskConfig& config) {
    if (const auto replaced = numbers_.find(config.sla_id); replaced != numbers_.end()) {
      report_.warnings.push_back({number,
                                  id,
                                  {"sla-id", std::to_string(id.value_or(0)),
                                   fmt::format("replaces task {}", replaced->second)}});
    }
    numbers_[config.sla_id] = number;
    accepted_[config.sla_id] = config;
    report_.accepted = accepted_.size();
  }

  FileReport& report_;
  const KeychainStorage* keychain_;
  const timespec now_;
  SlaTaskMap accepted_;
  std::map<std::uint16_t, std::size_t> numbers_;  // of the accepted tasks
};

FileReport CheckTasks(const std::string& name, const KeychainStorage* keychain,
                      const timespec& now) {
  FileReport report{.name = name};
  const ConfigFile file = ReadConfigFile(name, kTasksKey);
  if (const auto fault = FileFault(file, kTasksKey)) {
    report.faults.push_back(ReasonOnly(*fault));
    return report;
  }
  TasksChecker checker(&report, keychain, now);
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, file.array) {
    checker.Check(element);
  }
  CheckCpus(file.json.document.get(), &report);
  return report;
}

void AddFindingLines(const FileReport& report, const char* noun, std::vector<std::string>* lines) {
  for (const auto* findings : {&report.faults, &report.warnings}) {
    const char* kind = findings == &report.warnings ? "warning: " : "";
    for (const Finding& finding : *findings) {
      std::string line = report.name + ": ";
      if (finding.number > 0) {
        line += fmt::format("{} {}", noun, finding.number);
        line += finding.id ? fmt::format(" (id {}): ", *finding.id) : ": ";
      }
      line += kind;
      if (!finding.fault.key.empty()) {
        const std::string value =
            finding.fault.value.empty() ? " (missing)" : " = " + finding.fault.value;
        line += finding.fault.key + value + ": ";
      }
      lines->push_back(line + finding.fault.reason);
    }
  }
}

std::string CountLine(const FileReport& report, const char* noun) {
  const auto count = [](std::size_t number, const char* word) {
    return fmt::format("{} {}{}", number, word, number == 1 ? "" : "s");
  };
  return fmt::format("{}: {}, {} accepted, {}, {}", report.name, count(report.elements, noun),
                     report.accepted, count(report.faults.size(), "fault"),
                     count(report.warnings.size(), "warning"));
}

cJSON* FindingsJson(const std::vector<Finding>& findings) {
  cJSON* array = cJSON_CreateArray();
  for (const Finding& finding : findings) {
    JsonDocument object(cJSON_CreateObject());
    cJSON_AddItemToObject(object.get(), "number",
                          finding.number > 0
                              ? cJSON_CreateNumber(static_cast<double>(finding.number))
                              : cJSON_CreateNull());
    cJSON_AddItemToObject(object.get(), "id",
                          finding.id ? cJSON_CreateNumber(*finding.id) : cJSON_CreateNull());
    cJSON_AddStringToObject(object.get(), "key", finding.fault.key.c_str());
    cJSON_AddStringToObject(object.get(), "value", finding.fault.value.c_str());
    cJSON_AddStringToObject(object.get(), "reason", finding.fault.reason.c_str());
    cJSON_AddItemToArray(array, object.release());
  }
  return array;
}

cJSON* FileJson(const FileReport& report) {
  cJSON* object = cJSON_CreateObject();
  cJSON_AddStringToObject(object, "file", report.name.c_str());
  cJSON_AddNumberToObject(object, "elements", static_cast<double>(report.elements));
  cJSON_AddNumberToObject(object, "accepted", static_cast<double>(report.accepted));
  cJSON_AddItemToObject(object, "faults", FindingsJson(report.faults));
  cJSON_AddItemToObject(object, "warnings", FindingsJson(report.warnings));
  return object;
}

}  // namespace

bool CheckReport::HasFaults() const {
  return !tasks.faults.empty() || (keychain && !keychain->faults.empty());
}

CheckReport CheckFiles(const std::string& tasks_file, const std::string& keychain_file,
                       const timespec& now) {
  CheckReport report;
  KeychainStorage keys;
  if (!keychain_file.empty()) {
    report.keychain = CheckKeychain(keychain_file, &keys);
  }
  report.tasks = CheckTasks(tasks_file, report.keychain ? &keys : nullptr, now);
  return report;
}

std::vector<std::string> CheckLines(const CheckReport& report) {
  std::vector<std::string> lines;
  AddFindingLines(report.tasks, "task", &lines);
  if (report.keychain) {
    AddFindingLines(*report.keychain, "key", &lines);
  }
  lines.push_back(CountLine(report.tasks, "task"));
  if (report.keychain) {
    lines.push_back(CountLine(*report.keychain, "key"));
  }
  return lines;
}

std::string CheckJson(const CheckReport& report) {
  const JsonDocument document(cJSON_CreateObject());
  cJSON_AddItemToObject(document.get(), "tasks", FileJson(report.tasks));
  cJSON_AddItemToObject(document.get(), "keychain",
                        report.keychain ? FileJson(*report.keychain) : cJSON_CreateNull());
  const JsonText text(cJSON_PrintUnformatted(document.get()));
  return text.get();
}

}  // namespace ipsla::ctl
