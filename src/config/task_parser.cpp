#include "config/task_parser.h"

#include <arpa/inet.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include <cjson/cJSON.h>

#include "config/json_text.h"

namespace ipsla {
namespace {

// A member of the task, present or not.
struct Member {
  std::string key;  // its place in the task
  const cJSON* item = nullptr;

  [[nodiscard]] bool IsNumber() const { return cJSON_IsNumber(item) != 0; }
  // The integer that the JSON library keeps of a number: cut toward zero and limited to signed 32
  // bits.
  [[nodiscard]] std::int32_t Int() const { return item->valueint; }
  [[nodiscard]] const char* Text() const {
    return cJSON_GetStringValue(item);
  }  // null when it is no text
  [[nodiscard]] bool HasText() const { return Text() != nullptr; }
  [[nodiscard]] bool HasNonEmptyText() const { return HasText() && *Text() != '\0'; }
};

// The task or one of its objects.
struct Object {
  const cJSON* json = nullptr;  // null: not there, nothing in it is looked at
  std::string prefix;           // of its members' keys

  [[nodiscard]] Member Find(const char* name) const {
    return {prefix + name, cJSON_GetObjectItem(json, name)};
  }
};

// kept-behaviours.md#reasons-may-name-the-other-phase
constexpr const char* kNoSource = "no control phase source address/interface configuration";
constexpr const char* kNoSourcePort = "no control phase source port configuration";
constexpr const char* kInvalidSourcePort = "invalid control phase source port configuration";

struct PhaseReasons {
  const char* source_address;
  const char* no_destination;
  const char* destination_port;
  const char* destination_address;
};

constexpr PhaseReasons kControlReasons = {
    .source_address = "invalid control phase source ip address",
    .no_destination = "no control phase destination address/port configuration",
    .destination_port = "invalid destination phase destination port configuration",
    .destination_address = "invalid control phase destination ip address",
};
constexpr PhaseReasons kMeasurementReasons = {
    .source_address = "invalid measurement phase source ip address",
    .no_destination = "no measurement phase destination address/port configuration",
    .destination_port = "invalid control phase destination port configuration",
    .destination_address = "invalid measurement phase destination ip address",
};

constexpr const char* kNoSchedulerTime = "no scheduler time configuration";
constexpr const char* kNoParameters = "no measurement phase parametrs configuration";

// From 0 to `max`.
bool IsWithin(std::int32_t number, std::int32_t max) {
  return number >= 0 && number <= max;
}

in_port_t NetworkPort(std::int32_t port) {
  return htons(static_cast<std::uint16_t>(port));
}

// Converts dotted text (kept-behaviours.md#text-that-is-no-address-is-0000). False is only the
// failure of the conversion itself, which inet_pton(3) has for an unknown address family alone.
bool ReadAddress(const char* text, in_addr* address, std::optional<std::string>* failure) {
  in_addr converted{};
  const int status = inet_pton(AF_INET, text, &converted);
  if (status == -1) {
    *failure = std::string("inet_pton() failed: ") + std::strerror(errno);
    return false;
  }
  *address = status == 1 ? converted : in_addr{};
  return true;
}

// Reads one task, one group of checks after the other. Within a group nothing has an effect outside
// this object, so that what follows the first fault there does no harm when only that fault counts.
class TaskReader {
 public:
  enum class Until : std::uint8_t { kFirstFault, kEnd };

  TaskReader(const cJSON* element, const SlaTaskMap& accepted, const KeychainStorage* keychain,
             const InterfaceLookup& lookup, Until until)
      : task_{element, ""},
        accepted_(accepted),
        keychain_(keychain),
        lookup_(lookup),
        until_(until) {}

  TaskCheck Read() {
    using Group = void (TaskReader::*)();
    constexpr std::array<Group, 8> kGroups = {
        &TaskReader::ReadMain,         &TaskReader::ReadScheduler,      &TaskReader::ReadVrf,
        &TaskReader::ReadControlPhase, &TaskReader::ReadAuthentication, &TaskReader::ReadType,
        &TaskReader::ReadMeasurement,  &TaskReader::CheckBudget,
    };
    for (const Group group : kGroups) {
      (this->*group)();
      if (Finished()) break;
    }
    return std::move(result_);
  }

 private:
  [[nodiscard]] bool Finished() const {
    return result_.abandoned || (until_ == Until::kFirstFault && !result_.faults.empty());
  }

  bool Require(bool holds, const Member& member, const char* reason) {
    if (!holds && !Finished()) {
      result_.faults.push_back({member.key, ShortJsonText(member.item), reason});
    }
    return holds;
  }

  // The named member as an object; nothing in it when it is none.
  Object RequireObject(const Object& parent, const char* name, const char* reason) {
    const Member member = parent.Find(name);
    const bool is_object = Require(cJSON_IsObject(member.item) != 0, member, reason);
    return {is_object ? member.item : nullptr, member.key + "."};
  }

  void ReadMain();
  void ReadScheduler();
  void ReadVrf();
  void ReadControlPhase();
  void ReadControlTimes();
  void ReadEndpoint(const Object& phase, const PhaseReasons& reasons, SlaEndpointConfig* endpoint);
  void ReadSource(const Object& phase, const PhaseReasons& reasons, SlaEndpointConfig* endpoint);
  void ReadSourcePort(const Object& phase, SlaEndpointConfig* endpoint);
  void ReadDestination(const Object& phase, const PhaseReasons& reasons,
                       SlaEndpointConfig* endpoint);
  void ReadAuthentication();
  void ReadKey(const Object& authentication, SlaAuthConfig* auth);
  void ReadType();
  void ReadMeasurement();
  void ReadParameters();
  void CheckBudget();

  const Object task_;
  const SlaTaskMap& accepted_;
  const KeychainStorage* keychain_;
  const InterfaceLookup& lookup_;
  const Until until_;
  Object control_;
  Object measurement_;
  bool has_period_ = false;    // the schedule could be read
  bool has_duration_ = false;  // so could the numbers that bound a run
  TaskCheck result_;
};

void TaskReader::ReadMain() {
  constexpr const char* kInvalidMain = "invalid main task configuration";
  const Member id = task_.Find("sla-id");
  const Member history = task_.Find("num-rep-hist");
  const Member schedule = task_.Find("schedule");
  const bool has_id = Require(id.IsNumber(), id, kInvalidMain);
  const bool has_history = Require(history.IsNumber(), history, kInvalidMain);
  Require(cJSON_IsBool(schedule.item) != 0, schedule, kInvalidMain);
  // Before it is cut: kept-behaviours.md#numbers-are-checked-whole-and-kept-cut
  if (has_id) Require(!accepted_.contains(id.Int()), id, kDuplicateTask);
  if (has_history) Require(history.Int() >= 1, history, "invalid history count value");
  if (Finished()) return;  // faults up to here are reported with id 0
  if (has_history) result_.config.num_rep_hist = static_cast<std::uint8_t>(history.Int());
  if (has_id) result_.config.sla_id = static_cast<std::uint16_t>(id.Int());
}

void TaskReader::ReadScheduler() {
  const Member schedule = task_.Find("schedule");
  has_period_ = cJSON_IsBool(schedule.item) != 0;
  if (cJSON_IsTrue(schedule.item) == 0) return;
  result_.config.schedule = true;
  const Object scheduler = RequireObject(task_, "scheduler", "no scheduler configuration");
  has_period_ = false;
  if (scheduler.json == nullptr) return;

  SlaSchedulerConfig& config = result_.config.scheduler;
  const Member time = scheduler.Find("time");
  const Member start = scheduler.Find("Start-time");
  const Member life = scheduler.Find("life-time");
  has_period_ =
      Require(time.HasText() || (time.IsNumber() && time.Int() >= 0), time, kNoSchedulerTime);
  Require(start.HasText(), start, kNoSchedulerTime);
  Require(life.HasText() || (life.IsNumber() && life.Int() >= 0), life,
          "invalid scheduler time configuration");

  // kept-behaviours.md#a-period-given-as-text-is-no-period
  config.time = time.IsNumber() ? time.Int() : 0;
  if (start.HasText()) config.start_time = start.Text();
  if (life.HasText()) config.life_time = life.Text();
  if (life.IsNumber()) config.life_time = std::to_string(life.Int());
}

void TaskReader::ReadVrf() {
  const Member vrf = task_.Find("vrf-instance");
  if (!vrf.HasText()) return;
  result_.config.control_phase.vrf = vrf.Text();
  result_.config.measurement.vrf = vrf.Text();
}

void TaskReader::ReadControlPhase() {
  control_ = RequireObject(task_, "control-phase", "no control phase configuration");
  if (control_.json == nullptr) return;
  ReadControlTimes();
  if (!Finished()) ReadEndpoint(control_, kControlReasons, &result_.config.control_phase);
}

void TaskReader::ReadControlTimes() {
  const Member timeout = control_.Find("timeout");
  if (Require(timeout.IsNumber(), timeout, "no control phase timeout configuration")) {
    Require(timeout.Int() >= 1, timeout, "invalid control phase timeout value");
    result_.config.control_timeout = timeout.Int();
  }
  const Member retry = control_.Find("retry");
  if (Require(retry.IsNumber(), retry, "no control phase retry configuration")) {
    Require(retry.Int() >= 1, retry, "invalid control phase retry value");
    result_.config.control_retry = retry.Int();
  }
}

void TaskReader::ReadEndpoint(const Object& phase, const PhaseReasons& reasons,
                              SlaEndpointConfig* endpoint) {
  ReadSource(phase, reasons, endpoint);
  if (!Finished()) ReadSourcePort(phase, endpoint);
  if (!Finished()) ReadDestination(phase, reasons, endpoint);
}

void TaskReader::ReadSource(const Object& phase, const PhaseReasons& reasons,
                            SlaEndpointConfig* endpoint) {
  const Member address = phase.Find("src-address");
  if (address.HasNonEmptyText()) {
    Require(ReadAddress(address.Text(), &endpoint->src.sin_addr, &result_.conversion_failure),
            address, reasons.source_address);
    return;
  }
  std::int32_t status = kInterfaceFound;
  const Member interface = phase.Find("src-interface");
  const InterfaceAddress found = lookup_(result_.config.control_phase.vrf,
                                         interface.HasText() ? interface.Text() : "", &status);
  if (status == kInterfaceEnvironmentFailed) {
    result_.abandoned = true;
    return;
  }
  if (!Require(status != kInterfaceNotConfigured, interface, kNoSource)) return;
  endpoint->if_index = found.index;
  endpoint->if_name = found.name;
  endpoint->src = found.address;
}

void TaskReader::ReadSourcePort(const Object& phase, SlaEndpointConfig* endpoint) {
  constexpr std::string_view kAny = "any";
  const Member port = phase.Find("src-port");
  if (!Require(port.IsNumber() || port.HasText(), port, kNoSourcePort)) return;
  endpoint->src.sin_family = AF_INET;
  if (port.IsNumber()) {
    Require(IsWithin(port.Int(), kMaxPort), port, kInvalidSourcePort);
    endpoint->src.sin_port = NetworkPort(port.Int());
    return;
  }
  // kept-behaviours.md#text-that-begins-with-any-is-any
  endpoint->src_port_any =
      Require(std::string_view(port.Text()).starts_with(kAny), port, kInvalidSourcePort);
  endpoint->src.sin_port = 0;
}

void TaskReader::ReadDestination(const Object& phase, const PhaseReasons& reasons,
                                 SlaEndpointConfig* endpoint) {
  const Member address = phase.Find("dst-address");
  const Member port = phase.Find("dst-port");
  Require(address.HasText(), address, reasons.no_destination);
  const bool has_port = Require(port.IsNumber(), port, reasons.no_destination);
  if (has_port) Require(IsWithin(port.Int(), kMaxPort), port, reasons.destination_port);
  if (Finished()) return;
  endpoint->dst.sin_family = AF_INET;
  if (has_port) endpoint->dst.sin_port = NetworkPort(port.Int());
  if (!address.HasText()) return;
  Require(ReadAddress(address.Text(), &endpoint->dst.sin_addr, &result_.conversion_failure),
          address, reasons.destination_address);
}

void TaskReader::ReadAuthentication() {
  if (control_.json == nullptr) return;
  const Object authentication =
      RequireObject(control_, "authentication", "no control phase authentication configuration");
  if (authentication.json == nullptr) return;
  const Member mode = authentication.Find("mode");
  if (!Require(mode.HasText(), mode, "no control phase authentication mode configuration")) return;

  SlaAuthConfig& auth = result_.config.auth;
  auth.mode = AuthModeFromString(mode.Text());
  Require(auth.mode != SlaAuthMode::kUndefined, mode, "invalid authentication mode configuration");
  if (auth.mode != SlaAuthMode::kPassword && auth.mode != SlaAuthMode::kKeychain) return;

  const Member algorithm = authentication.Find("algorithm");
  if (Require(algorithm.HasText(), algorithm,
              "no control phase authentication algorithm configuration")) {
    auth.algorithm = AuthAlgorithmFromString(algorithm.Text());
    Require(auth.algorithm != SlaAuthAlgorithm::kUndefined, algorithm,
            "invalid authentication algorithm configuration");
  }
  ReadKey(authentication, &auth);
}

void TaskReader::ReadKey(const Object& authentication, SlaAuthConfig* auth) {
  if (auth->mode == SlaAuthMode::kPassword) {
    const Member text = authentication.Find("key-string");
    if (Require(text.HasNonEmptyText(), text,
                "no control phase authentication key string configuration")) {
      auth->key_string = HexKeyToBytes(text.Text());
    }
    return;
  }
  const Member id = authentication.Find("key-id");
  if (!Require(id.IsNumber(), id, "no control phase authentication key id configuration")) return;
  const bool known = keychain_ == nullptr || keychain_->contains(id.Int());
  Require(known, id, kUnknownKeyId);
  // kept-behaviours.md#numbers-are-checked-whole-and-kept-cut
  auth->key_id = static_cast<std::uint8_t>(id.Int());
}

void TaskReader::ReadType() {
  const Member type = task_.Find("sla-type");
  if (!Require(type.HasText(), type, "no measurement phase configuration")) return;
  result_.config.sla_type = TestTypeFromString(type.Text());
  if (!Require(result_.config.sla_type != SlaTestType::kNone, type,
               "invalid SLA task type value")) {
    return;
  }
  measurement_ = RequireObject(task_, type.Text(), "no measurement phase type configuration");
}

void TaskReader::ReadMeasurement() {
  if (measurement_.json == nullptr) return;
  ReadEndpoint(measurement_, kMeasurementReasons, &result_.config.measurement);
  if (!Finished()) ReadParameters();
}

void TaskReader::ReadParameters() {
  const Member packets = measurement_.Find("num-packets");
  const Member size = measurement_.Find("packet-size");
  const Member interval = measurement_.Find("interval");
  const Member timeout = measurement_.Find("timeout");
  const Member ttl = measurement_.Find("ttl");
  const Member dscp = measurement_.Find("dscp");
  const Member cos = measurement_.Find("cos");
  for (const Member* member : {&packets, &size, &interval, &timeout, &ttl, &dscp}) {
    Require(member->IsNumber(), *member, kNoParameters);
  }
  Require(cos.item != nullptr, cos, kNoParameters);  // of any type; what is no number counts as 0

  // A number that is missing has its fault already.
  const auto require_range = [this](const Member& member, auto holds, const char* reason) {
    return member.IsNumber() && Require(holds(member.Int()), member, reason);
  };
  SlaTaskConfig& config = result_.config;
  const std::int32_t min_size = MinPacketSize(config.sla_type);
  const bool has_packets = require_range(
      packets, [](auto n) { return n >= 1; }, "invalid packets number");
  require_range(
      size, [=](auto n) { return n >= min_size; }, "invalid packets size");
  const bool has_interval = require_range(
      interval, [](auto n) { return n >= 0; }, "invalid packets interval");
  require_range(
      ttl, [](auto n) { return IsWithin(n, kMaxTtl); }, "invalid ttl value");
  require_range(
      dscp, [](auto n) { return IsWithin(n, kMaxDscp); }, "invalid dscp value");
  has_duration_ = has_packets && has_interval && timeout.IsNumber();

  // kept-behaviours.md#numbers-are-checked-whole-and-kept-cut
  const auto number = [](const Member& member) { return member.IsNumber() ? member.Int() : 0; };
  const auto payload = static_cast<std::uint32_t>(number(size)) -
                       static_cast<std::uint32_t>(PacketHeaderSize(config.sla_type));
  config.num_packets = number(packets);
  config.packet_size = static_cast<std::uint16_t>(payload);
  config.interval = number(interval);
  config.timeout = number(timeout);
  config.ttl = static_cast<std::uint8_t>(number(ttl));
  config.dscp = static_cast<std::uint8_t>(number(dscp));
  config.cos = static_cast<std::uint8_t>(number(cos));
}

// One run must be shorter than the period:
// kept-behaviours.md#the-budget-holds-for-every-task-and-wraps
void TaskReader::CheckBudget() {
  if (!has_period_ || !has_duration_) return;
  const SlaTaskConfig& config = result_.config;
  const auto run_ms = static_cast<std::uint32_t>(PlainRunMs(config));
  const std::uint32_t period_ms = static_cast<std::uint32_t>(config.scheduler.time) * 1000U;
  Member place = task_.Find("schedule");
  if (config.schedule) {
    place = {"scheduler.time", cJSON_GetObjectItem(task_.Find("scheduler").item, "time")};
  }
  Require(run_ms < period_ms, place, kOverBudget);
}

}  // namespace

InterfaceAddress ConfiguredInterface(const std::string& /*vrf*/, const std::string& name,
                                     std::int32_t* status) {
  *status = name.empty() ? kInterfaceNotConfigured : kInterfaceFound;
  return {.name = name};
}

TaskParse ParseTask(const cJSON* element, const SlaTaskMap& accepted,
                    const KeychainStorage& keychain, const InterfaceLookup& lookup) {
  TaskCheck check =
      TaskReader(element, accepted, &keychain, lookup, TaskReader::Until::kFirstFault).Read();
  TaskParse parse;
  parse.config = std::move(check.config);
  if (!check.faults.empty()) parse.fault = std::move(check.faults.front().reason);
  parse.conversion_failure = std::move(check.conversion_failure);
  parse.abandoned = check.abandoned;
  return parse;
}

TaskCheck CheckTask(const cJSON* element, const SlaTaskMap& accepted,
                    const KeychainStorage* keychain, const InterfaceLookup& lookup) {
  return TaskReader(element, accepted, keychain, lookup, TaskReader::Until::kEnd).Read();
}

}  // namespace ipsla
