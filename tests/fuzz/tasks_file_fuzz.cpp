// The tasks file's text: JSON, every check of every task, and the dump of what was accepted.

#include <string_view>

#include <cjson/cJSON.h>

#include "config/json_text.h"
#include "config/print_funcs.h"
#include "config/task_parser.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  const auto input = fuzz::Exactly(data, size);
  const JsonParse parsed = ParseJson({reinterpret_cast<const char*>(input.data()), input.size()});
  const KeychainStorage keys{{1, "one"}, {5, "five"}};
  SlaTaskMap accepted;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, cJSON_GetObjectItem(parsed.document.get(), "IP-SLA-tasks")) {
    const TaskParse task = ParseTask(element, accepted, keys, ConfiguredInterface);
    const TaskCheck check = CheckTask(element, accepted, &keys, ConfiguredInterface);
    fuzz::Require(task.Accepted() == (check.faults.empty() && !check.abandoned),
                  "both users of the rules agree");
    if (task.fault) {
      fuzz::Require(check.faults.front().reason == *task.fault, "the first fault is the daemon's");
    }
    if (task.Accepted()) accepted[task.config.sla_id] = task.config;
  }
  PrintTaskConfigs(accepted, keys);
  return 0;
}
