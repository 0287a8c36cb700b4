#include "ctl/check.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "config/config_file.h"
#include "config/task_parser.h"
#include "ctl/file_check.h"
#include "ctl/known_keys.h"
#include "ctl/member_check.h"
#include "ctl/task_warnings.h"

namespace ipsla::ctl {
namespace {

std::optional<std::int32_t> IdOf(const cJSON* element, const char* key) {
  const cJSON* id = cJSON_GetObjectItem(element, key);
  return cJSON_IsNumber(id) != 0 ? std::optional<std::int32_t>(id->valueint) : std::nullopt;
}

void CheckCpus(FileCheck* file, HostView* host) {
  const auto warn = [file](const cJSON* value, std::string reason) {
    file->Add(0, std::nullopt, file->Root(),
              {.fault = {"cpus", ShortJsonText(value), std::move(reason)}, .item = value});
  };
  const cJSON* cpus = cJSON_GetObjectItem(file->Root(), "cpus");
  if (cJSON_IsArray(cpus) == 0 || cJSON_GetArraySize(cpus) == 0) {
    warn(cpus, "names no CPU: the daemon starts no worker threads and runs no test");
    return;
  }
  const cJSON* cpu = nullptr;
  cJSON_ArrayForEach(cpu, cpus) {
    const int number = cJSON_IsNumber(cpu) != 0 ? cpu->valueint : 0;
    const auto stored = static_cast<std::uint8_t>(number);
    if (cJSON_IsNumber(cpu) == 0 || cpu->valuedouble != stored) {
      warn(cpu, fmt::format("counts as CPU {}", stored));
    } else if (host != nullptr && !host->HasCpu(stored)) {
      warn(cpu, "is no CPU that this machine has: the threads for it run on any");
    }
  }
}

/// The sum that the parser holds against the period, in its 32 bits.
std::string BudgetText(const SlaTaskConfig& config) {
  const std::int64_t run_ms = PlainRunMs(config);
  const std::int64_t period_ms = std::int64_t{config.scheduler.time} * 1000;
  const auto kept_run_ms = static_cast<std::uint32_t>(run_ms);
  const auto kept_period_ms = static_cast<std::uint32_t>(period_ms);
  const bool fits = kept_run_ms == run_ms && kept_period_ms == period_ms;
  return fmt::format(
      "timeout {} + num-packets {} x interval {} = {} ms to be less than the period of {} ms{}",
      config.timeout, config.num_packets, config.interval, kept_run_ms, kept_period_ms,
      fits ? "" : ", both cut to 32 bits");
}

/// How a file is called.
std::string ShownName(const std::string& name) {
  return name == kStandardInput ? "<standard input>" : name;
}

/// Checks the tasks one after the other, as each depends on those before.
class TasksChecker {
 public:
  TasksChecker(FileCheck* file, const TaskSurroundings& around) : file_(*file), around_(around) {}

  void Check(const cJSON* element) {
    const Place place{++file_.Report().elements, IdOf(element, "sla-id"), element};
    const TaskCheck check = CheckTask(element, accepted_, around_.keychain, ConfiguredInterface);
    AddFaults(place, check);
    AddMembers(place, check.faults);
    if (!check.faults.empty()) {
      return;
    }
    const std::vector<Remark> remarks = InspectTask(element, check.config, around_);
    for (const Remark& remark : remarks) {
      Add(place, remark);
    }
    Accept(place, check.config, std::ranges::any_of(remarks, [](const Remark& remark) {
             return remark.severity != Severity::kWarning;
           }));
  }

  /// What could not be looked at.
  void AddNotes() {
    if (around_.host == nullptr) {
      return;
    }
    std::set<std::string> vrfs;
    for (const auto& [id, task] : accepted_) {
      vrfs.insert(task.measurement.vrf);
    }
    for (const std::string& vrf : vrfs) {
      const HostInterfaces& interfaces = around_.host->Interfaces(vrf);
      if (!interfaces.found && around_.host->VrfFault(vrf).empty()) {
        file_.Report().notes.push_back(fmt::format(
            "which addresses {} has could not be looked at: {}",
            vrf.empty() ? "this machine" : fmt::format("VRF \"{}\"", vrf), interfaces.fault));
      }
    }
  }

 private:
  /// One task of the file.
  struct Place {
    std::size_t number;
    std::optional<std::int32_t> id;
    const cJSON* element;
  };

  void Add(const Place& place, const Remark& remark, std::string expected = "") {
    file_.Add(place.number, place.id, place.element, remark, std::move(expected));
  }

  void AddFaults(const Place& place, const TaskCheck& check) {
    for (const TaskFault& fault : check.faults) {
      Add(place, {.fault = fault, .severity = Severity::kFault}, ExpectedOf(fault, check.config));
    }
  }

  static std::string ExpectedOf(const TaskFault& fault, const SlaTaskConfig& config) {
    if (fault.reason == kOverBudget) {
      return BudgetText(config);
    }
    if (fault.reason == kDuplicateTask) {
      return "";
    }
    return fault.reason == kUnknownKeyId ? "an id of the keychain file"
                                         : ExpectedAt(fault.key, config.sla_type);
  }

  /// Where a fault says what is wrong with a value, its type needs no remark.
  void AddMembers(const Place& place, const std::vector<TaskFault>& faults) {
    for (const Remark& remark : TaskMemberRemarks(place.element)) {
      const bool is_known = !remark.at_name && std::ranges::any_of(faults, [&](const auto& fault) {
        return fault.key == remark.fault.key;
      });
      if (!is_known) {
        Add(place, remark);
      }
    }
  }

  void Accept(const Place& place, const SlaTaskConfig& config, bool ends_daemon) {
    if (const auto replaced = numbers_.find(config.sla_id); replaced != numbers_.end()) {
      Add(place, {.fault = {"sla-id", std::to_string(place.id.value_or(0)),
                            fmt::format("replaces task {}", replaced->second)}});
    }
    numbers_[config.sla_id] = place.number;
    accepted_[config.sla_id] = config;
    usable_.erase(config.sla_id);
    if (!ends_daemon) {
      usable_.insert(config.sla_id);
    }
    file_.Report().accepted = usable_.size();
  }

  FileCheck& file_;
  const TaskSurroundings& around_;
  SlaTaskMap accepted_;
  std::set<std::uint16_t> usable_;                // of the accepted tasks
  std::map<std::uint16_t, std::size_t> numbers_;  // of the accepted tasks
};

/// One element of the keychain; `fault` is why the daemon passes it over.
void CheckKey(FileCheck* file, const cJSON* element, const KeyFault* fault) {
  const std::size_t number = ++file->Report().elements;
  const auto id = IdOf(element, "key-id");
  if (fault != nullptr) {
    file->Add(number, fault->id, element,
              {.fault = {"", "", fault->reason}, .item = element, .severity = Severity::kFault});
  }
  for (const Remark& remark : MemberRemarks(element, KeyPlace::kKey)) {
    // Of which type a value is, the fault says.
    if (fault == nullptr || remark.at_name) {
      file->Add(number, id, element, remark);
    }
  }
  if (id && *id != static_cast<std::uint8_t>(*id)) {
    file->Add(number, id, element,
              {.fault = {"key-id", std::to_string(*id),
                         "is of no use to tasks: their key ids have 8 bits"}});
  }
}

}  // namespace

FileReport CheckKeychain(const std::string& name, const ConfigInput& input, const HostView* host,
                         KeychainStorage* keys) {
  FileCheck file(ShownName(name), input, kKeychainKey);
  constexpr mode_t kOthersRead = S_IRGRP | S_IROTH;
  const bool has_key = cJSON_GetArraySize(file.Array()) > 0;
  if (has_key && host != nullptr && input.mode && (*input.mode & kOthersRead) != 0) {
    file.Report().warnings.push_back(
        {.fault = {"", "",
                   fmt::format("holds keys, and others than its owner can read it (mode {:04o})",
                               *input.mode)}});
  }
  for (const Remark& remark : MemberRemarks(file.Root(), KeyPlace::kKeychainRoot)) {
    file.Add(0, std::nullopt, file.Root(), remark);
  }
  if (file.Array() == nullptr) {
    return std::move(file.Report());
  }
  const std::size_t before = keys->size();
  const std::vector<KeyFault> faults = ReadKeys(file.Array(), keys);
  auto fault = faults.begin();
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, file.Array()) {
    const bool is_faulty = fault != faults.end() && fault->position == file.Report().elements;
    CheckKey(&file, element, is_faulty ? &*fault : nullptr);
    fault += is_faulty ? 1 : 0;
  }
  file.Report().accepted = keys->size() - before;
  return std::move(file.Report());
}

FileReport CheckTasks(const std::string& name, const ConfigInput& input,
                      const KeychainStorage* keychain, const CheckRequest& request) {
  FileCheck file(ShownName(name), input, kTasksKey);
  for (const Remark& remark : MemberRemarks(file.Root(), KeyPlace::kTasksRoot)) {
    file.Add(0, std::nullopt, file.Root(), remark);
  }
  if (file.Array() == nullptr) {
    return std::move(file.Report());
  }
  const TaskSurroundings around{.keychain = keychain, .now = request.now, .host = request.host};
  TasksChecker checker(&file, around);
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, file.Array()) {
    checker.Check(element);
  }
  CheckCpus(&file, request.host);
  checker.AddNotes();
  return std::move(file.Report());
}

CheckReport CheckFiles(const CheckRequest& request) {
  CheckReport report;
  KeychainStorage keys;
  if (!request.keychain_file.empty()) {
    report.keychain = CheckKeychain(request.keychain_file, ReadConfigInput(request.keychain_file),
                                    request.host, &keys);
  }
  const bool has_keys = report.keychain && (report.keychain->faults.empty() || !keys.empty());
  report.tasks = CheckTasks(request.tasks_file, ReadConfigInput(request.tasks_file),
                            has_keys ? &keys : nullptr, request);
  return report;
}

}  // namespace ipsla::ctl
