#include "ctl/task_warnings.h"

#include <netinet/ip.h>
#include <netinet/udp.h>

#include <algorithm>
#include <limits>
#include <string>
#include <string_view>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "ctl/display_text.h"
#include "sender/icmp_message.h"
#include "udp/control_phase_message.h"
#include "udp/probe_message.h"

namespace ipsla::ctl {
namespace {

/// A wait of so many milliseconds, or of a negative number, comes out as another one.
constexpr std::int64_t kWrapMs = std::int64_t{1} << 32;
constexpr std::int64_t kIpHeaderBytes = kIpv4HeaderSize;
constexpr std::int64_t kMaxIcmpMessage = IP_MAXPACKET - kIpHeaderBytes;
constexpr std::int64_t kMaxUdpPayload = kMaxIcmpMessage - std::int64_t{sizeof(udphdr)};
constexpr std::int64_t kSequenceEnd = kReplySequenceEnd;

constexpr const char* kControlPhase = "control-phase";
constexpr const char* kAuthentication = "control-phase.authentication";

/// Looks at one task.
class TaskInspector {
 public:
  TaskInspector(const cJSON* element, const SlaTaskConfig& task, const TaskSurroundings& around)
      : task_(task), around_(around), phase_(TestTypeToString(task.sla_type)), remarks_(element) {}

  std::vector<Remark> Inspect() {
    CheckCut("sla-id", task_.sla_id, ": ids have 16 bits");
    CheckCut("num-rep-hist", task_.num_rep_hist, ": histories have at most 255 entries");
    CheckType();
    InspectVrf(task_, around_.host, &remarks_);
    InspectSchedule(task_.scheduler, around_.now, &remarks_);
    InspectEndpoint(task_, kControlPhase, around_.host, &remarks_);
    if (!IsIcmp(task_.sla_type)) {
      CheckKey();
    }
    InspectEndpoint(task_, phase_, around_.host, &remarks_);
    CheckPorts();
    CheckPacketSize();
    CheckProbes();
    CheckDuration();
    return remarks_.Take();
  }

 private:
  /// A number that the daemon keeps in fewer bits.
  void CheckCut(const std::string& key, std::int64_t stored, const std::string& effect) {
    const cJSON* item = remarks_.Find(key);
    if (cJSON_IsNumber(item) != 0 && item->valueint != stored) {
      remarks_.Warn(key, fmt::format("is kept as {}{}", stored, effect));
    }
  }

  void CheckType();
  void CheckKey();
  void CheckPassword();
  void CheckPorts();
  void CheckPacketSize();
  void CheckIcmpSize(const std::string& key, std::int64_t configured);
  void CheckUdpSize(const std::string& key, std::int64_t configured);
  void CheckProbes();
  void CheckProbeCount();
  void CheckDuration();

  const SlaTaskConfig& task_;
  const TaskSurroundings& around_;
  const std::string phase_;  // key of the measurement phase
  TaskRemarks remarks_;
};

void TaskInspector::CheckType() {
  if (task_.sla_type == SlaTestType::kUdpJitterNtp) {
    remarks_.Warn("sla-type", "gives figures that mean nothing; udp-jitter measures");
  }
}

void TaskInspector::CheckKey() {
  if (task_.auth.mode == SlaAuthMode::kPassword) {
    CheckPassword();
  }
  if (task_.auth.mode != SlaAuthMode::kKeychain) {
    return;
  }
  const std::string key = std::string(kAuthentication) + ".key-id";
  const KeychainStorage* keychain = around_.keychain;
  if (keychain != nullptr && !keychain->contains(task_.auth.key_id)) {
    remarks_.Fatal(key, fmt::format("is kept as {}: key ids of tasks have 8 bits, and there is no "
                                    "such key, which ends the daemon when it creates the test",
                                    task_.auth.key_id));
    return;
  }
  CheckCut(key, task_.auth.key_id, ": key ids of tasks have 8 bits");
}

void TaskInspector::CheckPassword() {
  const std::string key = std::string(kAuthentication) + ".key-string";
  const std::string text = remarks_.Text(key);
  const std::string& bytes = task_.auth.key_string;
  const bool announced = text.starts_with("0x");
  if (bytes.empty()) {
    remarks_.Warn(key, "is an empty key");
  } else if (bytes == text) {
    return;
  } else if (!announced) {
    remarks_.Warn(key,
                  fmt::format("is taken as hexadecimal digits, {} byte{}; with 0x before them that "
                              "is said on purpose, and a keychain's keys are taken as text",
                              bytes.size(), bytes.size() == 1 ? "" : "s"));
  } else if (text.size() % 2 != 0) {
    remarks_.Warn(key, "is an odd number of hexadecimal digits: the last one is a byte by itself");
  }
}

void TaskInspector::CheckPorts() {
  if (IsIcmp(task_.sla_type)) {
    return;
  }
  if (task_.control_phase.dst.sin_port == 0) {
    remarks_.Warn("control-phase.dst-port", "cannot be reached");
  }
  const SlaEndpointConfig& control = task_.control_phase;
  const SlaEndpointConfig& measurement = task_.measurement;
  const bool same_source = control.src.sin_addr.s_addr == measurement.src.sin_addr.s_addr &&
                           control.if_name == measurement.if_name;
  if (same_source && control.src.sin_port != 0 &&
      control.src.sin_port == measurement.src.sin_port) {
    remarks_.Warn(phase_ + ".src-port", "is the control phase's source port too: no run can start");
  }
}

void TaskInspector::CheckPacketSize() {
  const std::string key = phase_ + ".packet-size";
  const std::int64_t configured = remarks_.Find(key)->valueint;
  IsIcmp(task_.sla_type) ? CheckIcmpSize(key, configured) : CheckUdpSize(key, configured);
}

void TaskInspector::CheckIcmpSize(const std::string& key, std::int64_t configured) {
  // The message is shorter than the payload by an IP header.
  const std::int64_t message = configured - PacketHeaderSize(task_.sla_type) - kIpHeaderBytes;
  const auto header = static_cast<std::int64_t>(
      task_.sla_type == SlaTestType::kIcmpEcho ? kIcmpHeaderSize : kIcmpTimestampHeaderSize);
  if (message < header) {
    remarks_.Warn(key, fmt::format("leaves {} of the {} bytes of the ICMP message's header; the "
                                   "smallest that works is {}",
                                   std::max<std::int64_t>(message, 0), header,
                                   configured - message + header));
  } else if (message > kMaxIcmpMessage) {
    remarks_.Warn(key, fmt::format("leaves {} bytes of ICMP message, and IPv4 carries {}", message,
                                   kMaxIcmpMessage));
  }
}

void TaskInspector::CheckUdpSize(const std::string& key, std::int64_t configured) {
  const std::int64_t payload = configured - PacketHeaderSize(task_.sla_type);
  if (payload > kMaxUdpPayload) {
    remarks_.Warn(key, fmt::format("leaves {} bytes of payload, and UDP carries {}", payload,
                                   kMaxUdpPayload));
  } else if (payload < kSequenceEnd && task_.num_packets > 1) {
    remarks_.Warn(
        key, fmt::format("leaves {} bytes of payload, too few for the sequence number that ends at "
                         "byte {} of a reply: replies cannot be told apart; the smallest that "
                         "works is {}",
                         payload, kSequenceEnd, configured - payload + kSequenceEnd));
  }
}

void TaskInspector::CheckProbeCount() {
  const std::string key = phase_ + ".num-packets";
  const bool has_wide_numbers =
      task_.sla_type == SlaTestType::kUdpJitter || task_.sla_type == SlaTestType::kUdpJitterNtp;
  if (task_.num_packets > kMaxProbes) {
    remarks_.Fatal(key, fmt::format("is more than the daemon has memory for, which ends it: at "
                                    "most {} are safe",
                                    kMaxProbes));
  } else if (!has_wide_numbers && task_.num_packets > std::numeric_limits<std::uint16_t>::max()) {
    remarks_.Warn(key, "is more than the 16-bit sequence numbers of this type can tell apart");
  } else if (task_.num_packets > kManyProbes) {
    remarks_.Warn(key,
                  fmt::format("takes the daemon more than 100 MB: up to {} is usual", kManyProbes));
  }
}

void TaskInspector::CheckProbes() {
  CheckProbeCount();
  if (task_.timeout < 1) {
    remarks_.Warn(phase_ + ".timeout", "leaves the replies no time");
  }
  if (task_.ttl == 0) {
    remarks_.Warn(phase_ + ".ttl", "is refused by the kernel: no run can start");
  }
  const std::string key = phase_ + ".cos";
  const cJSON* cos = remarks_.Find(key);
  if (cJSON_IsNumber(cos) == 0) {
    remarks_.Warn(key, "is no number and counts as 0");
  } else if (cos->valueint < 0 || cos->valueint > 7) {
    remarks_.Warn(key, "is no 802.1p priority (0 to 7)");
  }
}

void TaskInspector::CheckDuration() {
  const std::int64_t period_ms = std::int64_t{task_.scheduler.time} * 1000;
  if (period_ms >= kWrapMs) {
    remarks_.Warn("scheduler.time",
                  fmt::format("is longer than the daemon can wait: runs would start every {}",
                              AgeText(period_ms % kWrapMs / 1000)));
  }
  const std::int64_t longest_ms = LongestRunMs(task_);
  if (longest_ms <= period_ms) {
    return;
  }
  const std::string parts =
      IsIcmp(task_.sla_type)
          ? fmt::format("timeout {} + {} x {}", task_.timeout, task_.num_packets, task_.interval)
          : fmt::format("control phase {} + timeout {} + {} x ({} + {})", task_.control_timeout,
                        task_.timeout, task_.num_packets, task_.interval, kIntervalSlackMs);
  remarks_.Warn("scheduler.time",
                fmt::format("a run that loses packets can last {} ms ({}), longer than {} ms: the "
                            "next would start {} later",
                            longest_ms, parts, period_ms, AgeText(kWrapMs / 1000)));
}

}  // namespace

bool IsIcmp(SlaTestType type) {
  return type == SlaTestType::kIcmpEcho || type == SlaTestType::kIcmpJitter;
}

std::int64_t LongestRunMs(const SlaTaskConfig& task) {
  return IsIcmp(task.sla_type) ? PlainRunMs(task) : task.control_timeout + SessionMs(task);
}

std::vector<Remark> InspectTask(const cJSON* element, const SlaTaskConfig& task,
                                const TaskSurroundings& around) {
  return TaskInspector(element, task, around).Inspect();
}

}  // namespace ipsla::ctl
