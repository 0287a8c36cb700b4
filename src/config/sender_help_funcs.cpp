#include "config/sender_help_funcs.h"

#include <utility>

#include <cjson/cJSON.h>

#include "config/config_file.h"
#include "config/file_fault_log.h"
#include "config/task_parser.h"
#include "env/interface_lookup.h"
#include "log/log.h"

namespace ipsla {
namespace {

// Logs what is wrong with the file as a whole.
void LogTasksFileFault(const ConfigFile& file) {
  LogFileFault(file, "SLA tasks");
  if (file.fault == ConfigFileFault::kNoArray) {
    LOG_DEBUG(0, "ivalid configuration");  // spelled so on purpose
  }
}

// Appends the numbers of "cpus", cut to 8 bits. A missing list, or one that is no array, adds
// nothing.
void AppendCpus(const cJSON* root, std::vector<std::uint8_t>* cpus) {
  const cJSON* list = cJSON_GetObjectItem(root, "cpus");
  if (cJSON_IsArray(list) == 0) return;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, list) {
    // The library keeps integers for other types too, true being 1; here they are all
    // kept-behaviours.md#a-cpu-that-is-no-number-is-cpu-0
    cpus->push_back(cJSON_IsNumber(element) != 0 ? static_cast<std::uint8_t>(element->valueint)
                                                 : std::uint8_t{0});
  }
}

}  // namespace

int ParseTaskConfigs(const std::string& filename, SlaTaskMap* tasks,
                     const KeychainStorage& keychain, std::vector<std::uint8_t>* cpus,
                     std::string* fault) {
  tasks->clear();
  const ConfigFile file = ReadConfigFile(filename, kTasksKey);
  if (file.fault != ConfigFileFault::kNone) {
    LogTasksFileFault(file);
    *fault = FileFaultText(filename, file, kTasksKey);
    return -1;
  }
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, file.array) {
    TaskParse task = ParseTask(element, *tasks, keychain, GetIfaceData);
    if (task.abandoned) {
      *fault = filename + ": the interface of a task cannot be looked up in its VRF";
      return -1;
    }
    if (task.conversion_failure) LOG_DEBUG(0, "%s", task.conversion_failure->c_str());
    if (task.fault) {
      LOG_DEBUG(0, "SLA task ID #%u parse skipped: %s", unsigned{task.config.sla_id},
                task.fault->c_str());
      continue;
    }
    const std::int32_t id = task.config.sla_id;
    tasks->insert_or_assign(id, std::move(task.config));
  }
  AppendCpus(file.json.document.get(), cpus);
  return 0;
}

}  // namespace ipsla
