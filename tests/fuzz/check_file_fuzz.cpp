// Configuration files under ip-sla-ctl check: every finding has its place and its line.

#include "config/json_text.h"
#include "ctl/check.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  using namespace ipsla::ctl;
  const ConfigInput input{.text = std::string(data, data + size), .mode = {}};
  const CheckRequest request{.now = {.tv_sec = 1'700'000'000, .tv_nsec = 0}};
  CheckReport report;
  KeychainStorage keys;
  report.keychain = CheckKeychain("keychain", input, nullptr, &keys);
  report.tasks = CheckTasks("tasks", input, &keys, request);
  fuzz::Require(report.tasks.accepted <= report.tasks.elements, "no more than there is is taken");
  fuzz::Require(CheckLines(report).size() >= 2, "each file has its line");
  fuzz::Require(ParseJson(CheckJson(report)).document != nullptr, "the findings are JSON");
  return 0;
}
