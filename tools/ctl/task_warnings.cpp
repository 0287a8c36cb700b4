#include "ctl/task_warnings.h"

#include <arpa/inet.h>
#include <netinet/ip.h>
#include <netinet/udp.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "config/json_text.h"
#include "ctl/display_text.h"
#include "env/time_values.h"
#include "sender/icmp_message.h"
#include "sender/schedule.h"
#include "udp/control_phase_message.h"
#include "udp/probe_message.h"

namespace ipsla::ctl {
namespace {

/// Waits are counted in unsigned 32-bit milliseconds: what is negative or longer comes out as
/// something else.
constexpr std::int64_t kWrapMs = std::int64_t{1} << 32;
constexpr std::int64_t kNanosecondsPerMs = 1000000;
constexpr std::int64_t kIpHeaderBytes = kIpv4HeaderSize;
constexpr std::int64_t kMaxIcmpMessage = IP_MAXPACKET - kIpHeaderBytes;
constexpr std::int64_t kMaxUdpPayload = kMaxIcmpMessage - std::int64_t{sizeof(udphdr)};
constexpr std::int64_t kSequenceEnd = kReplySequenceEnd;

bool IsIcmp(SlaTestType type) {
  return type == SlaTestType::kIcmpEcho || type == SlaTestType::kIcmpJitter;
}

const cJSON* Member(const cJSON* object, const char* key) {
  return cJSON_GetObjectItem(object, key);
}

std::string TextOf(const cJSON* item) {
  const char* text = cJSON_GetStringValue(item);
  return text == nullptr ? "" : text;
}

bool IsAddress(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

std::string DaysText(std::int64_t ms) {
  return AgeText(ms / 1000);
}

/// Looks at one task.
class TaskInspector {
 public:
  TaskInspector(const cJSON* element, const SlaTaskConfig& task, const KeychainStorage* keychain,
                const timespec& now)
      : element_(element), task_(task), keychain_(keychain), now_(now) {}

  std::vector<TaskFault> Inspect() {
    CheckCuts();
    CheckStart();
    CheckLife();
    if (!IsIcmp(task_.sla_type)) {
      CheckAddresses("control-phase", task_.control_phase);
      CheckKeyId();
    }
    CheckAddresses(MeasurementKey(), task_.measurement);
    CheckPorts();
    CheckPacketSize();
    CheckProbes();
    CheckDuration();
    return std::move(warnings_);
  }

 private:
  [[nodiscard]] std::string MeasurementKey() const { return TestTypeToString(task_.sla_type); }

  /// The member at a place like "scheduler.time".
  [[nodiscard]] const cJSON* Find(const std::string& key) const {
    const std::size_t dot = key.rfind('.');
    const cJSON* object = dot == std::string::npos ? element_ : Find(key.substr(0, dot));
    return Member(object, key.substr(dot == std::string::npos ? 0 : dot + 1).c_str());
  }

  void Warn(const std::string& key, std::string reason) {
    warnings_.push_back({key, ShortJsonText(Find(key)), std::move(reason)});
  }

  /// A number that the daemon keeps in fewer bits.
  void CheckCut(const std::string& key, std::int64_t stored, const std::string& effect) {
    const cJSON* item = Find(key);
    if (cJSON_IsNumber(item) != 0 && item->valueint != stored) {
      Warn(key, fmt::format("is kept as {}{}", stored, effect));
    }
  }

  void CheckCuts();
  void CheckStart();
  void CheckLife();
  void CheckAddresses(const std::string& phase, const SlaEndpointConfig& endpoint);
  void CheckKeyId();
  void CheckPorts();
  void CheckPacketSize();
  void CheckProbes();
  void CheckDuration();

  const cJSON* element_;
  const SlaTaskConfig& task_;
  const KeychainStorage* keychain_;
  const timespec now_;
  std::vector<TaskFault> warnings_;
};

void TaskInspector::CheckCuts() {
  CheckCut("sla-id", task_.sla_id, ": ids have 16 bits");
  CheckCut("num-rep-hist", task_.num_rep_hist, ": histories have at most 255 entries");
}

void TaskInspector::CheckStart() {
  const std::string key = "scheduler.Start-time";
  if (task_.scheduler.start_time == "now") {
    return;
  }
  SlaSchedulerConfig scheduler = task_.scheduler;
  scheduler.life_time = "0";  // so that the end of life is the start
  std::optional<FirstStart> first;
  try {
    first = ComputeFirstStart(scheduler, now_);
  } catch (const std::runtime_error&) {
    Warn(key, "cannot be read as a time, which ends the daemon when it creates the test");
    return;
  }
  const std::int64_t wanted_ms = (first->end_of_life - ToNanoseconds(now_)) / kNanosecondsPerMs;
  if (wanted_ms <= -1000) {
    Warn(key, fmt::format("has passed {} ago: the first run would start in {}",
                          DaysText(-wanted_ms), DaysText(first->delay_ms)));
  } else if (wanted_ms >= kWrapMs) {
    Warn(key, fmt::format(
                  "is {} ahead, longer than the daemon can wait: the first run would start in {}",
                  DaysText(wanted_ms), DaysText(first->delay_ms)));
  }
}

void TaskInspector::CheckLife() {
  const std::string key = "scheduler.life-time";
  if (task_.scheduler.life_time == "forever") {
    return;
  }
  SlaSchedulerConfig scheduler = task_.scheduler;
  scheduler.start_time = "now";
  std::optional<FirstStart> first;
  try {
    first = ComputeFirstStart(scheduler, now_);
  } catch (const std::runtime_error&) {
    Warn(key, "is longer than can be counted, which ends the daemon when it creates the test");
    return;
  }
  if (!first) {
    Warn(key, "is negative: the test never starts");
  } else if (first->end_of_life <= ToNanoseconds(now_)) {
    Warn(key, "leaves no time to live (text that is no number counts as 0): the test never runs");
  }
}

void TaskInspector::CheckAddresses(const std::string& phase, const SlaEndpointConfig& endpoint) {
  const std::string source = TextOf(Find(phase + ".src-address"));
  if (!source.empty() && !IsAddress(source)) {
    Warn(phase + ".src-address", "is no IPv4 address and counts as 0.0.0.0: no run can start");
  } else if (!source.empty() && endpoint.src.sin_addr.s_addr == INADDR_ANY) {
    Warn(phase + ".src-address", "is no interface's address: no run can start");
  }
  const std::string destination = TextOf(Find(phase + ".dst-address"));
  if (!IsAddress(destination)) {
    Warn(phase + ".dst-address", "is no IPv4 address and counts as 0.0.0.0");
  } else if (endpoint.dst.sin_addr.s_addr == INADDR_ANY) {
    Warn(phase + ".dst-address", "is no host's address");
  }
}

void TaskInspector::CheckKeyId() {
  if (task_.auth.mode != SlaAuthMode::kKeychain) {
    return;
  }
  const std::string key = "control-phase.authentication.key-id";
  const bool missing = keychain_ != nullptr && !keychain_->contains(task_.auth.key_id);
  CheckCut(key, task_.auth.key_id,
           missing ? ": key ids of tasks have 8 bits, and there is no such key"
                   : ": key ids of tasks have 8 bits");
}

void TaskInspector::CheckPorts() {
  if (IsIcmp(task_.sla_type)) {
    return;
  }
  if (task_.control_phase.dst.sin_port == 0) {
    Warn("control-phase.dst-port", "cannot be reached");
  }
  const SlaEndpointConfig& control = task_.control_phase;
  const SlaEndpointConfig& measurement = task_.measurement;
  const bool same_source = control.src.sin_addr.s_addr == measurement.src.sin_addr.s_addr &&
                           control.if_name == measurement.if_name;
  if (same_source && control.src.sin_port != 0 &&
      control.src.sin_port == measurement.src.sin_port) {
    Warn(MeasurementKey() + ".src-port",
         "is the control phase's source port too: no run can start");
  }
}

void TaskInspector::CheckPacketSize() {
  const std::string key = MeasurementKey() + ".packet-size";
  const std::int64_t configured = Find(key)->valueint;
  const std::int64_t payload = configured - PacketHeaderSize(task_.sla_type);
  if (IsIcmp(task_.sla_type)) {
    // The message is shorter than the payload by an IP header.
    const std::int64_t message = payload - kIpHeaderBytes;
    const std::int64_t header =
        task_.sla_type == SlaTestType::kIcmpEcho ? kIcmpHeaderSize : kIcmpTimestampHeaderSize;
    if (message < header) {
      Warn(key,
           fmt::format("leaves {} of the {} bytes of the ICMP message's header; the smallest that "
                       "works is {}",
                       std::max<std::int64_t>(message, 0), header, configured - message + header));
    } else if (message > kMaxIcmpMessage) {
      Warn(key, fmt::format("leaves {} bytes of ICMP message, and IPv4 carries {}", message,
                            kMaxIcmpMessage));
    }
    return;
  }
  if (payload > kMaxUdpPayload) {
    Warn(key,
         fmt::format("leaves {} bytes of payload, and UDP carries {}", payload, kMaxUdpPayload));
  } else if (payload < kSequenceEnd && task_.num_packets > 1) {
    Warn(key, fmt::format("leaves {} bytes of payload, too few for the sequence number that ends "
                          "at byte {} of a reply: "
                          "replies cannot be told apart; the smallest that works is {}",
                          payload, kSequenceEnd, configured - payload + kSequenceEnd));
  }
}

void TaskInspector::CheckProbes() {
  const std::string phase = MeasurementKey();
  const bool has_wide_numbers =
      task_.sla_type == SlaTestType::kUdpJitter || task_.sla_type == SlaTestType::kUdpJitterNtp;
  if (!has_wide_numbers && task_.num_packets > std::numeric_limits<std::uint16_t>::max()) {
    Warn(phase + ".num-packets",
         "is more than the 16-bit sequence numbers of this type can tell apart");
  }
  if (task_.timeout < 1) {
    Warn(phase + ".timeout", "leaves the replies no time");
  }
  if (task_.ttl == 0) {
    Warn(phase + ".ttl", "is refused by the kernel: no run can start");
  }
  if (cJSON_IsNumber(Find(phase + ".cos")) == 0) {
    Warn(phase + ".cos", "is no number and counts as 0");
  } else if (Find(phase + ".cos")->valueint < 0 || Find(phase + ".cos")->valueint > 7) {
    Warn(phase + ".cos", "is no 802.1p priority (0 to 7)");
  }
}

void TaskInspector::CheckDuration() {
  const std::int64_t period_ms = std::int64_t{task_.scheduler.time} * 1000;
  if (period_ms >= kWrapMs) {
    Warn("scheduler.time",
         fmt::format("is longer than the daemon can wait: runs would start every {}",
                     DaysText(period_ms % kWrapMs)));
  }
  const std::int64_t longest_ms = LongestRunMs(task_);
  if (longest_ms <= period_ms) {
    return;
  }
  const bool is_icmp = IsIcmp(task_.sla_type);
  const std::string parts =
      is_icmp
          ? fmt::format("timeout {} + {} x {}", task_.timeout, task_.num_packets, task_.interval)
          : fmt::format("control phase {} + timeout {} + {} x ({} + {})", task_.control_timeout,
                        task_.timeout, task_.num_packets, task_.interval, kIntervalSlackMs);
  Warn("scheduler.time", fmt::format("a run that loses packets can last {} ms ({}), longer than {} "
                                     "ms: the next would start {} later",
                                     longest_ms, parts, period_ms, DaysText(kWrapMs)));
}

}  // namespace

std::int64_t LongestRunMs(const SlaTaskConfig& task) {
  return IsIcmp(task.sla_type) ? PlainRunMs(task) : task.control_timeout + SessionMs(task);
}

std::vector<TaskFault> TaskWarnings(const cJSON* element, const SlaTaskConfig& task,
                                    const KeychainStorage* keychain, const timespec& now) {
  return TaskInspector(element, task, keychain, now).Inspect();
}

}  // namespace ipsla::ctl
