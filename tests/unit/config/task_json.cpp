#include "config/task_json.h"

#include <arpa/inet.h>
#include <dlfcn.h>

#include <cerrno>
#include <stdexcept>
#include <string_view>

#include <cjson/cJSON.h>

// The C library's inet_pton never fails for IPv4, so that the branch for it needs a failing one.
extern "C" int inet_pton(int family, const char* text, void* address) noexcept {
  using Function = int (*)(int, const char*, void*);
  static const auto kReal = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "inet_pton"));
  const std::string_view failing = ipsla::test::kFailingAddress;
  if (failing.substr(1, failing.size() - 2) == text) {
    errno = EAFNOSUPPORT;
    return -1;
  }
  return kReal(family, text, address);
}

namespace ipsla::test {

std::string ValidTask() {
  return R"({
    "sla-id": 7,
    "schedule": true,
    "num-rep-hist": 10,
    "scheduler": {"time": 60, "Start-time": "now", "life-time": "forever"},
    "vrf-instance": "blue",
    "control-phase": {
      "timeout": 1500,
      "retry": 3,
      "src-address": "192.0.2.1",
      "src-port": "any",
      "dst-address": "192.0.2.2",
      "dst-port": 1234,
      "authentication": {"mode": "password", "algorithm": "hmac-sha256", "key-string": "0x0a1B"}
    },
    "sla-type": "udp-jitter",
    "udp-jitter": {
      "src-address": "192.0.2.3",
      "src-port": 2000,
      "dst-address": "192.0.2.4",
      "dst-port": 3000,
      "num-packets": 50,
      "packet-size": 100,
      "interval": 20,
      "timeout": 1000,
      "ttl": 64,
      "dscp": 46,
      "cos": 5
    }
  })";
}

JsonDocument Json(const std::string& json) {
  JsonDocument document(cJSON_Parse(json.c_str()));
  if (!document) throw std::invalid_argument("no JSON: " + json);
  return document;
}

JsonDocument Edited(const std::string& json, const std::vector<Edit>& edits) {
  JsonDocument document = Json(json);
  for (const Edit& edit : edits) {
    cJSON* parent = document.get();
    std::string name = edit.path;
    for (std::size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.')) {
      parent = cJSON_GetObjectItem(parent, name.substr(0, dot).c_str());
      name.erase(0, dot + 1);
    }
    if (parent == nullptr) throw std::invalid_argument("no place for " + edit.path);
    cJSON_DeleteItemFromObject(parent, name.c_str());
    if (!edit.json.empty()) cJSON_AddItemToObject(parent, name.c_str(), Json(edit.json).release());
  }
  return document;
}

}  // namespace ipsla::test
