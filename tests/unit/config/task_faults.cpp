#include "config/task_faults.h"

namespace ipsla::test {
namespace {

// A row whose one edit is at the place of the fault.
FaultCase At(const std::string& name, const std::string& key, const std::string& json,
             const std::string& reason) {
  return {name, {{key, json}}, {key, json, reason}};
}

void AddAuthenticationRows(std::vector<FaultCase>* rows) {
  const std::string place = "control-phase.authentication";
  const std::string no_auth = "no control phase authentication configuration";
  const std::string no_mode = "no control phase authentication mode configuration";
  const std::string no_algorithm = "no control phase authentication algorithm configuration";
  const std::string no_key = "no control phase authentication key string configuration";
  const std::string no_id = "no control phase authentication key id configuration";
  rows->push_back(At("AuthenticationMissing", place, "", no_auth));
  rows->push_back(At("AuthenticationText", place, "\"no\"", no_auth));
  rows->push_back(At("ModeMissing", place + ".mode", "", no_mode));
  rows->push_back(At("ModeNumber", place + ".mode", "1", no_mode));
  rows->push_back(At("ModeUnknown", place + ".mode", "\"Password\"",
                     "invalid authentication mode configuration"));
  rows->push_back(At("AlgorithmMissing", place + ".algorithm", "", no_algorithm));
  rows->push_back(At("AlgorithmNumber", place + ".algorithm", "1", no_algorithm));
  rows->push_back(At("AlgorithmUnknown", place + ".algorithm", "\"md5\"",
                     "invalid authentication algorithm configuration"));
  rows->push_back(At("KeyStringMissing", place + ".key-string", "", no_key));
  rows->push_back(At("KeyStringEmpty", place + ".key-string", "\"\"", no_key));
  rows->push_back(At("KeyStringNumber", place + ".key-string", "1234", no_key));
  const std::string keychain = R"({"mode":"keychain","algorithm":"sha256")";
  rows->push_back({"KeyIdMissing", {{place, keychain + "}"}}, {place + ".key-id", "", no_id}});
  rows->push_back({"KeyIdText",
                   {{place, keychain + R"(,"key-id":"1"})"}},
                   {place + ".key-id", "\"1\"", no_id}});
  rows->push_back(
      {"KeyIdUnknown",
       {{place, keychain + R"(,"key-id":99})"}},
       {place + ".key-id", "99", "invalid control phase authentication secret key id"}});
}

// The two phases' common rows; the reasons that differ are given.
void AddEndpointRows(const std::string& prefix, const std::string& phase,
                     const std::string& source_reason, const std::string& no_destination,
                     const std::string& port_reason, const std::string& destination_reason,
                     std::vector<FaultCase>* rows) {
  const std::string no_source = "no control phase source address/interface configuration";
  const std::string no_port = "no control phase source port configuration";
  const std::string bad_port = "invalid control phase source port configuration";
  const std::string address = phase + ".src-address";
  const std::string interface = phase + ".src-interface";
  rows->push_back(At(prefix + "SourceNotConverted", address, kFailingAddress, source_reason));
  rows->push_back({prefix + "SourceMissing", {{address, ""}}, {interface, "", no_source}});
  rows->push_back({prefix + "SourceEmpty", {{address, "\"\""}}, {interface, "", no_source}});
  rows->push_back({prefix + "SourceNumber", {{address, "1"}}, {interface, "", no_source}});
  rows->push_back({prefix + "InterfaceEmpty",
                   {{address, ""}, {interface, "\"\""}},
                   {interface, "\"\"", no_source}});
  rows->push_back(
      {prefix + "InterfaceNumber", {{address, ""}, {interface, "2"}}, {interface, "2", no_source}});
  rows->push_back(At(prefix + "SourcePortMissing", phase + ".src-port", "", no_port));
  rows->push_back(At(prefix + "SourcePortNull", phase + ".src-port", "null", no_port));
  rows->push_back(At(prefix + "SourcePortBool", phase + ".src-port", "true", no_port));
  rows->push_back(At(prefix + "SourcePortArray", phase + ".src-port", "[1]", no_port));
  rows->push_back(At(prefix + "SourcePortTooLarge", phase + ".src-port", "65536", bad_port));
  rows->push_back(At(prefix + "SourcePortNegative", phase + ".src-port", "-1", bad_port));
  rows->push_back(At(prefix + "SourcePortOtherText", phase + ".src-port", "\"an\"", bad_port));
  rows->push_back(At(prefix + "SourcePortDigits", phase + ".src-port", "\"2000\"", bad_port));
  rows->push_back(At(prefix + "DestinationMissing", phase + ".dst-address", "", no_destination));
  rows->push_back(At(prefix + "DestinationNumber", phase + ".dst-address", "1", no_destination));
  rows->push_back(At(prefix + "DestinationPortMissing", phase + ".dst-port", "", no_destination));
  rows->push_back(
      At(prefix + "DestinationPortText", phase + ".dst-port", "\"3000\"", no_destination));
  rows->push_back(
      At(prefix + "DestinationPortTooLarge", phase + ".dst-port", "65536", port_reason));
  rows->push_back(At(prefix + "DestinationPortNegative", phase + ".dst-port", "-1", port_reason));
  rows->push_back(At(prefix + "DestinationNotConverted", phase + ".dst-address", kFailingAddress,
                     destination_reason));
}

void AddMainRows(std::vector<FaultCase>* rows) {
  const std::string main = "invalid main task configuration";
  const std::string time = "no scheduler time configuration";
  const std::string life = "invalid scheduler time configuration";
  rows->push_back(At("IdMissing", "sla-id", "", main));
  rows->push_back(At("IdText", "sla-id", "\"7\"", main));
  rows->push_back(At("HistoryMissing", "num-rep-hist", "", main));
  rows->push_back(At("HistoryText", "num-rep-hist", "\"1\"", main));
  rows->push_back(At("ScheduleMissing", "schedule", "", main));
  rows->push_back(At("ScheduleNumber", "schedule", "1", main));
  rows->push_back(At("Duplicate", "sla-id", "5", "duplicate task"));
  rows->push_back(At("HistoryZero", "num-rep-hist", "0", "invalid history count value"));
  rows->push_back(At("HistoryNegative", "num-rep-hist", "-1", "invalid history count value"));
  rows->push_back(At("SchedulerMissing", "scheduler", "", "no scheduler configuration"));
  rows->push_back(At("SchedulerArray", "scheduler", "[]", "no scheduler configuration"));
  rows->push_back(At("TimeMissing", "scheduler.time", "", time));
  rows->push_back(At("TimeNegative", "scheduler.time", "-1", time));
  rows->push_back(At("TimeNull", "scheduler.time", "null", time));
  rows->push_back(At("TimeBool", "scheduler.time", "true", time));
  rows->push_back(At("StartMissing", "scheduler.Start-time", "", time));
  rows->push_back(At("StartNumber", "scheduler.Start-time", "12", time));
  rows->push_back(At("LifeMissing", "scheduler.life-time", "", life));
  rows->push_back(At("LifeNegative", "scheduler.life-time", "-1", life));
  rows->push_back(At("LifeBool", "scheduler.life-time", "true", life));
}

void AddControlRows(std::vector<FaultCase>* rows) {
  const std::string no_control = "no control phase configuration";
  const std::string no_timeout = "no control phase timeout configuration";
  const std::string no_retry = "no control phase retry configuration";
  rows->push_back(At("ControlMissing", "control-phase", "", no_control));
  rows->push_back(At("ControlArray", "control-phase", "[]", no_control));
  rows->push_back(At("ControlTimeoutMissing", "control-phase.timeout", "", no_timeout));
  rows->push_back(At("ControlTimeoutText", "control-phase.timeout", "\"1\"", no_timeout));
  rows->push_back(At("ControlTimeoutZero", "control-phase.timeout", "0",
                     "invalid control phase timeout value"));
  rows->push_back(At("RetryMissing", "control-phase.retry", "", no_retry));
  rows->push_back(At("RetryText", "control-phase.retry", "\"1\"", no_retry));
  rows->push_back(At("RetryZero", "control-phase.retry", "0", "invalid control phase retry value"));
  AddEndpointRows("Control", "control-phase", "invalid control phase source ip address",
                  "no control phase destination address/port configuration",
                  "invalid destination phase destination port configuration",
                  "invalid control phase destination ip address", rows);
  AddAuthenticationRows(rows);
}

void AddMeasurementRows(std::vector<FaultCase>* rows) {
  const std::string no_object = "no measurement phase type configuration";
  rows->push_back(At("TypeMissing", "sla-type", "", "no measurement phase configuration"));
  rows->push_back(At("TypeNumber", "sla-type", "2", "no measurement phase configuration"));
  rows->push_back(At("TypeUnknown", "sla-type", "\"tcp-connect\"", "invalid SLA task type value"));
  rows->push_back(At("TypeUpperCase", "sla-type", "\"UDP-JITTER\"", "invalid SLA task type value"));
  rows->push_back(At("MeasurementMissing", "udp-jitter", "", no_object));
  rows->push_back(At("MeasurementArray", "udp-jitter", "[]", no_object));
  AddEndpointRows("Measurement", "udp-jitter", "invalid measurement phase source ip address",
                  "no measurement phase destination address/port configuration",
                  "invalid control phase destination port configuration",
                  "invalid measurement phase destination ip address", rows);
  for (const std::string key :
       {"num-packets", "packet-size", "interval", "timeout", "ttl", "dscp"}) {
    rows->push_back(At(key + "Missing", "udp-jitter." + key, "",
                       "no measurement phase parametrs configuration"));
    rows->push_back(At(key + "Text", "udp-jitter." + key, "\"1\"",
                       "no measurement phase parametrs configuration"));
  }
  rows->push_back(
      At("CosMissing", "udp-jitter.cos", "", "no measurement phase parametrs configuration"));
  rows->push_back(At("PacketsZero", "udp-jitter.num-packets", "0", "invalid packets number"));
  rows->push_back(At("PacketsNegative", "udp-jitter.num-packets", "-1", "invalid packets number"));
  rows->push_back(At("SizeTooSmall", "udp-jitter.packet-size", "69", "invalid packets size"));
  rows->push_back(At("SizeNegative", "udp-jitter.packet-size", "-1", "invalid packets size"));
  rows->push_back(At("IntervalNegative", "udp-jitter.interval", "-1", "invalid packets interval"));
  rows->push_back(At("TtlTooLarge", "udp-jitter.ttl", "256", "invalid ttl value"));
  rows->push_back(At("TtlNegative", "udp-jitter.ttl", "-1", "invalid ttl value"));
  rows->push_back(At("DscpTooLarge", "udp-jitter.dscp", "64", "invalid dscp value"));
  rows->push_back(At("DscpNegative", "udp-jitter.dscp", "-1", "invalid dscp value"));
  rows->push_back(At("RunAsLongAsPeriod", "scheduler.time", "2", "invalid scheduled time"));
  rows->push_back(At("PeriodZero", "scheduler.time", "0", "invalid scheduled time"));
  rows->push_back(At("PeriodText", "scheduler.time", "\"60\"", "invalid scheduled time"));
}

}  // namespace

std::vector<FaultCase> Rows() {
  std::vector<FaultCase> rows;
  AddMainRows(&rows);
  AddControlRows(&rows);
  AddMeasurementRows(&rows);
  return rows;
}

KeychainStorage Keys() {
  return {{1, "one"}, {257, "two hundred and fifty-seven"}};
}

TaskParse Parse(const JsonDocument& task) {
  return ParseTask(task.get(), {{5, SlaTaskConfig{}}}, Keys(), ConfiguredInterface);
}

TaskParse Parse(const std::vector<Edit>& edits) {
  return Parse(Edited(ValidTask(), edits));
}

std::string Reason(const std::vector<Edit>& edits) {
  const TaskParse parse = Parse(edits);
  return parse.Accepted() ? "accepted" : parse.fault.value_or("abandoned");
}

TaskCheck Check(const std::vector<Edit>& edits) {
  const KeychainStorage keys = Keys();
  return CheckTask(Edited(ValidTask(), edits).get(), {{5, SlaTaskConfig{}}}, &keys,
                   ConfiguredInterface);
}

}  // namespace ipsla::test
