#include "support/api_fixture.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <cjson/cJSON.h>

#include "api/sender_api_message.h"
#include "config/json_text.h"

namespace ipsla::test {
namespace {

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace

std::string TaskEntry::Json() const {
  const std::string endpoints =
      R"("src-address": ")" + source +
      R"(", "src-port": "any", "dst-address": "127.0.0.1", "dst-port": 1967)";
  return R"({"sla-id": )" + std::to_string(id) +
         R"(, "schedule": true, "num-rep-hist": 3,
             "scheduler": {"time": 3600, "Start-time": ")" +
         start + R"(", "life-time": "forever"},)" +
         (vrf.empty() ? "" : R"("vrf-instance": ")" + vrf + R"(",)") +
         R"("control-phase": {"timeout": 1000, "retry": 5, "authentication": {"mode": "no"}, )" +
         endpoints + R"(},
             "sla-type": "icmp-echo",
             "icmp-echo": {"num-packets": 3, "packet-size": 100, "interval": )" +
         std::to_string(interval) + R"(, "timeout": 1000, "ttl": 64, "dscp": 0, "cos": 0, )" +
         endpoints + "}}";
}

ApiFixture::ApiFixture() {
  std::string pattern = (std::filesystem::temp_directory_path() / "ipsla-api-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  directory_ = pattern;
  tasks_file = directory_ + "/tasks.json";
  keychain_file = directory_ + "/keychain.json";
  WriteTasks({});
  WriteKeychain(R"({"keychain-storage": []})");
}

ApiFixture::~ApiFixture() {
  End();
  std::filesystem::remove_all(directory_);
}

void ApiFixture::WriteTasks(const std::vector<TaskEntry>& tasks, const std::string& cpus) const {
  std::string list;
  for (const TaskEntry& task : tasks) list += (list.empty() ? "" : ",\n") + task.Json();
  WriteTasksText(R"({"cpus": )" + cpus + R"(, "IP-SLA-tasks": [)" + list + "]}");
}

void ApiFixture::WriteTasksText(const std::string& text) const {
  WriteFile(tasks_file, text);
}

void ApiFixture::WriteKeychain(const std::string& text) const {
  WriteFile(keychain_file, text);
}

std::map<int, int> ApiFixture::SuccessfulRuns() {
  std::string ids;
  for (int id = 0; id < 10; ++id) {
    ids += (id == 0 ? "" : ",") + (R"({"sla-id": )" + std::to_string(id) + R"(, "metrics": []})");
  }
  const auto reply = Exchange(RequestBytes(0, R"({"tasks": [)" + ids + "]}"));
  const JsonParse parse = ParseJson(ApiPayloadText(reply));
  std::map<int, int> runs;
  const cJSON* tasks = cJSON_GetObjectItem(parse.document.get(), "tasks");
  const cJSON* task = nullptr;
  cJSON_ArrayForEach(task, tasks) {
    runs[cJSON_GetObjectItem(task, "sla-id")->valueint] =
        cJSON_GetObjectItem(task, "successful-count")->valueint;
  }
  return runs;
}

int ApiFixture::Start() {
  sender.emplace(service, tasks_file, keychain_file);
  return sender->ParseConfigsAndStart();
}

}  // namespace ipsla::test
