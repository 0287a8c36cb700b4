// Every check of the parser as a fault in an otherwise valid task, and what the tests of the parser
// share.

#ifndef IPSLA_TESTS_UNIT_CONFIG_TASK_FAULTS_H_
#define IPSLA_TESTS_UNIT_CONFIG_TASK_FAULTS_H_

#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include "config/task_json.h"
#include "config/task_parser.h"

namespace ipsla::test {

// One fault in an otherwise valid task.
struct FaultCase {
  std::string name;
  std::vector<Edit> edits;
  TaskFault fault;
};

/// Every check, in the order in which they must be made.
std::vector<FaultCase> Rows();

/// Parses the valid task with these edits as the daemon does: a task with id 5 is accepted already,
/// the keys 1 and 257 are known, interfaces are not looked up.
TaskParse Parse(const std::vector<Edit>& edits);
TaskParse Parse(const JsonDocument& task);

/// The fault's reason, "accepted" or "abandoned".
std::string Reason(const std::vector<Edit>& edits);

/// As Parse, for every fault.
TaskCheck Check(const std::vector<Edit>& edits);

/// The keys that Parse and Check know.
KeychainStorage Keys();

/// A lookup with a given answer that records what it is asked for.
struct RecordingLookup {
  std::int32_t status = kInterfaceFound;
  InterfaceAddress answer;
  std::vector<std::string> asked;  ///< "vrf/interface"

  InterfaceLookup Function() {
    return [this](const std::string& vrf, const std::string& name, std::int32_t* out) {
      asked.push_back(vrf + "/" + name);
      *out = status;
      return answer;
    };
  }
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_CONFIG_TASK_FAULTS_H_
