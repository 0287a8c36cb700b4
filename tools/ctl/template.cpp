#include "ctl/template.h"

#include <algorithm>
#include <limits>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "config/json_text.h"
#include "config/task_parser.h"
#include "ctl/task_warnings.h"

namespace ipsla::ctl {
namespace {

constexpr std::int32_t kControlTimeoutMs = 2000;
constexpr std::int32_t kReplyTimeoutMs = 1000;
constexpr std::int32_t kUsualPeriodS = 60;

/// What suits a type.
struct UsualRun {
  std::int32_t packets, interval_ms, packet_size;
};

UsualRun UsualRunOf(SlaTestType type) {
  switch (type) {
    case SlaTestType::kUdpJitter:
    case SlaTestType::kUdpJitterNtp:
      return {.packets = 1000, .interval_ms = 20, .packet_size = 214};  // as a voice call
    case SlaTestType::kIcmpJitter:
      return {.packets = 100, .interval_ms = 100, .packet_size = 74};
    default:
      return {.packets = 10, .interval_ms = 1000, .packet_size = 126};  // as a usual ping
  }
}

std::string JsonOf(const std::string& text) {
  const JsonDocument item(cJSON_CreateString(text.c_str()));
  const JsonText printed(cJSON_PrintUnformatted(item.get()));
  return printed.get();
}

/// The usual period, or the next whole second behind the longest run.
std::int32_t PeriodOf(const TaskTemplate& task, const UsualRun& run) {
  SlaTaskConfig config;
  config.sla_type = task.type;
  config.control_timeout = kControlTimeoutMs;
  config.timeout = kReplyTimeoutMs;
  config.num_packets = task.packets.value_or(run.packets);
  config.interval = task.interval_ms.value_or(run.interval_ms);
  const std::int64_t longest_s = LongestRunMs(config) / 1000 + 1;
  return static_cast<std::int32_t>(
      std::clamp<std::int64_t>(longest_s, kUsualPeriodS, std::numeric_limits<std::int32_t>::max()));
}

std::string AuthenticationText(const std::optional<std::int32_t>& key_id) {
  return key_id
             ? fmt::format(R"({{ "mode": "keychain", "algorithm": "hmac-sha256", "key-id": {} }})",
                           *key_id)
             : R"({ "mode": "no" })";
}

}  // namespace

std::string TasksFileText(const TaskTemplate& task) {
  const UsualRun run = UsualRunOf(task.type);
  const std::string vrf =
      task.vrf.empty() ? "" : fmt::format("\n      \"vrf-instance\": {},", JsonOf(task.vrf));
  return fmt::format(
      R"({{
  "cpus": [0],
  "IP-SLA-tasks": [
    {{
      "sla-id": 1,
      "schedule": true,
      "num-rep-hist": 10,
      "scheduler": {{ "time": {period}, "Start-time": "now", "life-time": "forever" }},{vrf}
      "control-phase": {{
        "timeout": {control_timeout},
        "retry": 10,
        "src-address": "{source}",
        "src-port": "any",
        "dst-address": "{destination}",
        "dst-port": {port},
        "authentication": {authentication}
      }},
      "sla-type": "{type}",
      "{type}": {{
        "src-address": "{source}",
        "src-port": "any",
        "dst-address": "{destination}",
        "dst-port": {measurement_port},
        "num-packets": {packets},
        "packet-size": {size},
        "interval": {interval},
        "timeout": {timeout},
        "ttl": 64,
        "dscp": 0,
        "cos": 0
      }}
    }}
  ]
}}
)",
      fmt::arg("period", task.period_s.value_or(PeriodOf(task, run))), fmt::arg("vrf", vrf),
      fmt::arg("control_timeout", kControlTimeoutMs), fmt::arg("source", task.source),
      fmt::arg("destination", task.destination), fmt::arg("port", task.control_port),
      fmt::arg("measurement_port", task.control_port + (task.control_port < kMaxPort ? 1 : -1)),
      fmt::arg("authentication", AuthenticationText(task.key_id)),
      fmt::arg("type", TestTypeToString(task.type)),
      fmt::arg("packets", task.packets.value_or(run.packets)), fmt::arg("size", run.packet_size),
      fmt::arg("interval", task.interval_ms.value_or(run.interval_ms)),
      fmt::arg("timeout", kReplyTimeoutMs));
}

std::string KeychainFileText(std::int32_t key_id, const std::string& key) {
  return fmt::format(R"({{
  "keychain-storage": [
    {{ "key-id": {}, "key-string": {} }}
  ]
}}
)",
                     key_id, JsonOf(key));
}

}  // namespace ipsla::ctl
