#include "config/task_parser.h"

#include <arpa/inet.h>
#include <cjson/cJSON.h>

#include <fstream>
#include <limits>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/task_json.h"
#include "support/paths.h"
#include "support/recording_syslog.h"

namespace ipsla {
namespace {

using test::Edit;
using test::Edited;
using test::Json;
using test::kFailingAddress;
using test::ValidTask;
using testing::ElementsAre;
using testing::IsEmpty;

// One fault in an otherwise valid task.
struct Row {
  std::string name;
  std::vector<Edit> edits;
  TaskFault fault;
};

// A row whose one edit is at the place of the fault.
Row At(const std::string& name, const std::string& key, const std::string& json, const std::string& reason) {
  return {name, {{key, json}}, {key, json, reason}};
}

void AddAuthenticationRows(std::vector<Row>* rows) {
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
  rows->push_back(At("ModeUnknown", place + ".mode", "\"Password\"", "invalid authentication mode configuration"));
  rows->push_back(At("AlgorithmMissing", place + ".algorithm", "", no_algorithm));
  rows->push_back(At("AlgorithmNumber", place + ".algorithm", "1", no_algorithm));
  rows->push_back(
      At("AlgorithmUnknown", place + ".algorithm", "\"md5\"", "invalid authentication algorithm configuration"));
  rows->push_back(At("KeyStringMissing", place + ".key-string", "", no_key));
  rows->push_back(At("KeyStringEmpty", place + ".key-string", "\"\"", no_key));
  rows->push_back(At("KeyStringNumber", place + ".key-string", "1234", no_key));
  const std::string keychain = R"({"mode":"keychain","algorithm":"sha256")";
  rows->push_back({"KeyIdMissing", {{place, keychain + "}"}}, {place + ".key-id", "", no_id}});
  rows->push_back({"KeyIdText", {{place, keychain + R"(,"key-id":"1"})"}}, {place + ".key-id", "\"1\"", no_id}});
  rows->push_back({"KeyIdUnknown",
                   {{place, keychain + R"(,"key-id":99})"}},
                   {place + ".key-id", "99", "invalid control phase authentication secret key id"}});
}

// The two phases' common rows; the reasons that differ are given.
void AddEndpointRows(const std::string& prefix, const std::string& phase, const std::string& source_reason,
                     const std::string& no_destination, const std::string& port_reason,
                     const std::string& destination_reason, std::vector<Row>* rows) {
  const std::string no_source = "no control phase source address/interface configuration";
  const std::string no_port = "no control phase source port configuration";
  const std::string bad_port = "invalid control phase source port configuration";
  const std::string address = phase + ".src-address";
  const std::string interface = phase + ".src-interface";
  rows->push_back(At(prefix + "SourceNotConverted", address, kFailingAddress, source_reason));
  rows->push_back({prefix + "SourceMissing", {{address, ""}}, {interface, "", no_source}});
  rows->push_back({prefix + "SourceEmpty", {{address, "\"\""}}, {interface, "", no_source}});
  rows->push_back({prefix + "SourceNumber", {{address, "1"}}, {interface, "", no_source}});
  rows->push_back({prefix + "InterfaceEmpty", {{address, ""}, {interface, "\"\""}}, {interface, "\"\"", no_source}});
  rows->push_back({prefix + "InterfaceNumber", {{address, ""}, {interface, "2"}}, {interface, "2", no_source}});
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
  rows->push_back(At(prefix + "DestinationPortText", phase + ".dst-port", "\"3000\"", no_destination));
  rows->push_back(At(prefix + "DestinationPortTooLarge", phase + ".dst-port", "65536", port_reason));
  rows->push_back(At(prefix + "DestinationPortNegative", phase + ".dst-port", "-1", port_reason));
  rows->push_back(At(prefix + "DestinationNotConverted", phase + ".dst-address", kFailingAddress, destination_reason));
}

void AddMainRows(std::vector<Row>* rows) {
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

void AddControlRows(std::vector<Row>* rows) {
  const std::string no_control = "no control phase configuration";
  const std::string no_timeout = "no control phase timeout configuration";
  const std::string no_retry = "no control phase retry configuration";
  rows->push_back(At("ControlMissing", "control-phase", "", no_control));
  rows->push_back(At("ControlArray", "control-phase", "[]", no_control));
  rows->push_back(At("ControlTimeoutMissing", "control-phase.timeout", "", no_timeout));
  rows->push_back(At("ControlTimeoutText", "control-phase.timeout", "\"1\"", no_timeout));
  rows->push_back(At("ControlTimeoutZero", "control-phase.timeout", "0", "invalid control phase timeout value"));
  rows->push_back(At("RetryMissing", "control-phase.retry", "", no_retry));
  rows->push_back(At("RetryText", "control-phase.retry", "\"1\"", no_retry));
  rows->push_back(At("RetryZero", "control-phase.retry", "0", "invalid control phase retry value"));
  AddEndpointRows("Control", "control-phase", "invalid control phase source ip address",
                  "no control phase destination address/port configuration",
                  "invalid destination phase destination port configuration",
                  "invalid control phase destination ip address", rows);
  AddAuthenticationRows(rows);
}

void AddMeasurementRows(std::vector<Row>* rows) {
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
  for (const std::string key : {"num-packets", "packet-size", "interval", "timeout", "ttl", "dscp"}) {
    rows->push_back(At(key + "Missing", "udp-jitter." + key, "", "no measurement phase parametrs configuration"));
    rows->push_back(At(key + "Text", "udp-jitter." + key, "\"1\"", "no measurement phase parametrs configuration"));
  }
  rows->push_back(At("CosMissing", "udp-jitter.cos", "", "no measurement phase parametrs configuration"));
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

// Every check, in the order in which they must be made.
std::vector<Row> Rows() {
  std::vector<Row> rows;
  AddMainRows(&rows);
  AddControlRows(&rows);
  AddMeasurementRows(&rows);
  return rows;
}

// The tasks accepted before: one with id 5.
SlaTaskMap Accepted() {
  return {{5, SlaTaskConfig{}}};
}

KeychainStorage Keys() {
  return {{1, "one"}, {257, "two hundred and fifty-seven"}};
}

TaskParse Parse(const JsonDocument& task) {
  return ParseTask(task.get(), Accepted(), Keys(), ConfiguredInterface);
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
  return CheckTask(Edited(ValidTask(), edits).get(), Accepted(), &keys, ConfiguredInterface);
}

// The same task with another type and size.
std::vector<Edit> OfType(const std::string& type, int packet_size) {
  const JsonDocument task = Json(ValidTask());
  const JsonText measurement(cJSON_PrintUnformatted(cJSON_GetObjectItem(task.get(), "udp-jitter")));
  return {{"udp-jitter", ""},
          {"sla-type", "\"" + type + "\""},
          {type, measurement.get()},
          {type + ".packet-size", std::to_string(packet_size)}};
}

TEST(TaskParserTest, FillsEveryFieldOfAValidTask) {
  const TaskParse parse = Parse(std::vector<Edit>{});
  ASSERT_TRUE(parse.Accepted()) << parse.fault.value_or("abandoned");
  const SlaTaskConfig& task = parse.config;
  EXPECT_EQ(task.sla_id, 7);
  EXPECT_TRUE(task.schedule);
  EXPECT_EQ(task.num_rep_hist, 10);
  EXPECT_EQ(task.scheduler, (SlaSchedulerConfig{60, "now", "forever"}));
  EXPECT_EQ(task.control_timeout, 1500);
  EXPECT_EQ(task.control_retry, 3);
  EXPECT_EQ(task.auth.mode, SlaAuthMode::kPassword);
  EXPECT_EQ(task.auth.algorithm, SlaAuthAlgorithm::kHmacSha256);
  EXPECT_EQ(task.auth.key_id, 0);
  EXPECT_EQ(task.auth.key_string, "\x0a\x1b");
  EXPECT_EQ(task.sla_type, SlaTestType::kUdpJitter);
  EXPECT_EQ(task.num_packets, 50);
  EXPECT_EQ(task.packet_size, 58);
  EXPECT_EQ(task.interval, 20);
  EXPECT_EQ(task.timeout, 1000);
  EXPECT_EQ(task.ttl, 64);
  EXPECT_EQ(task.dscp, 46);
  EXPECT_EQ(task.cos, 5);
}

TEST(TaskParserTest, FillsBothEndpointsInNetworkByteOrder) {
  const SlaTaskConfig task = Parse(std::vector<Edit>{}).config;
  EXPECT_EQ(task.control_phase.vrf, "blue");
  EXPECT_EQ(task.control_phase.if_index, 0U);
  EXPECT_EQ(task.control_phase.if_name, "");
  EXPECT_EQ(task.control_phase.src.sin_family, AF_INET);
  EXPECT_EQ(Ipv4ToString(task.control_phase.src.sin_addr), "192.0.2.1");
  EXPECT_TRUE(task.control_phase.src_port_any);
  EXPECT_EQ(task.control_phase.src.sin_port, 0);
  EXPECT_EQ(task.control_phase.dst.sin_family, AF_INET);
  EXPECT_EQ(Ipv4ToString(task.control_phase.dst.sin_addr), "192.0.2.2");
  EXPECT_EQ(task.control_phase.dst.sin_port, htons(1234));
  EXPECT_EQ(task.measurement.vrf, "blue");
  EXPECT_EQ(Ipv4ToString(task.measurement.src.sin_addr), "192.0.2.3");
  EXPECT_FALSE(task.measurement.src_port_any);
  EXPECT_EQ(task.measurement.src.sin_port, htons(2000));
  EXPECT_EQ(Ipv4ToString(task.measurement.dst.sin_addr), "192.0.2.4");
  EXPECT_EQ(task.measurement.dst.sin_port, htons(3000));
}

class TaskFaultTest : public testing::TestWithParam<Row> {};

TEST_P(TaskFaultTest, SkipsTheTaskWithItsReason) {
  EXPECT_EQ(Reason(GetParam().edits), GetParam().fault.reason);
}

TEST_P(TaskFaultTest, NamesPlaceAndValueToAChecker) {
  const std::vector<TaskFault> faults = Check(GetParam().edits).faults;
  ASSERT_EQ(faults.size(), 1U);
  EXPECT_EQ(faults[0].key, GetParam().fault.key);
  EXPECT_EQ(faults[0].value, GetParam().fault.value);
  EXPECT_EQ(faults[0].reason, GetParam().fault.reason);
}

TEST_P(TaskFaultTest, IsDocumented) {
  std::ifstream in(test::SourcePath("docs/configuration.md"));
  std::stringstream manual;
  manual << in.rdbuf();
  EXPECT_NE(manual.str().find("`" + GetParam().fault.reason + "`"), std::string::npos) << GetParam().fault.reason;
}

std::string RowName(const testing::TestParamInfo<Row>& info) {
  std::string name = info.param.name;
  std::erase(name, '-');
  return name;
}

INSTANTIATE_TEST_SUITE_P(EveryCheck, TaskFaultTest, testing::ValuesIn(Rows()), RowName);

// True when `path` is inside `object`, so that replacing the object undoes an edit of the path.
bool IsInside(const std::string& path, const std::string& object) {
  return path.starts_with(object + ".");
}

bool Undoes(const std::vector<Edit>& later, const std::vector<Edit>& earlier) {
  for (const Edit& a : later) {
    for (const Edit& b : earlier) {
      if (IsInside(b.path, a.path)) return true;
    }
  }
  return false;
}

TEST(TaskParserTest, OfTwoFaultsTheEarlierCheckWins) {
  const std::vector<Row> rows = Rows();
  std::size_t pairs = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    for (std::size_t j = i + 1; j < rows.size(); ++j) {
      if (Undoes(rows[j].edits, rows[i].edits)) continue;  // no task can have both faults
      std::vector<Edit> edits = rows[j].edits;
      edits.insert(edits.end(), rows[i].edits.begin(), rows[i].edits.end());
      EXPECT_EQ(Reason(edits), rows[i].fault.reason) << rows[i].name << " and " << rows[j].name;
      ++pairs;
    }
  }
  EXPECT_GT(pairs, rows.size() * rows.size() / 3);
}

TEST(TaskParserTest, CheckerNamesFirstWhatTheDaemonStopsAt) {
  const std::vector<Row> rows = Rows();
  for (std::size_t i = 0; i + 1 < rows.size(); ++i) {
    std::vector<Edit> edits = rows[i + 1].edits;
    if (Undoes(edits, rows[i].edits)) continue;
    edits.insert(edits.end(), rows[i].edits.begin(), rows[i].edits.end());
    const TaskCheck check = Check(edits);
    ASSERT_FALSE(check.faults.empty()) << rows[i].name;
    EXPECT_EQ(check.faults.front().reason, Reason(edits)) << rows[i].name << " and " << rows[i + 1].name;
  }
}

TEST(TaskParserTest, ChecksTheAlgorithmBeforeTheKeyId) {
  const std::string key_id_too = R"({"mode":"keychain","algorithm":"md5","key-id":"x"})";
  EXPECT_EQ(Reason({{"control-phase.authentication", key_id_too}}), "invalid authentication algorithm configuration");
  const std::string without = R"({"mode":"keychain","key-id":99})";
  EXPECT_EQ(Reason({{"control-phase.authentication", without}}),
            "no control phase authentication algorithm configuration");
}

TEST(TaskParserTest, ReportsTheFirstThreeReasonsWithIdZero) {
  EXPECT_EQ(Parse({{"schedule", "1"}}).config.sla_id, 0);
  EXPECT_EQ(Parse({{"sla-id", "5"}}).config.sla_id, 0);
  EXPECT_EQ(Parse({{"num-rep-hist", "0"}}).config.sla_id, 0);
  EXPECT_EQ(Parse({{"scheduler", ""}}).config.sla_id, 7);
}

TEST(TaskParserTest, SkipsElementsThatAreNoObjects) {
  for (const char* element : {"5", "null", "\"task\"", "[]", "{}", "true", "[[1]]"}) {
    const TaskParse parse = Parse(Json(element));
    EXPECT_EQ(parse.fault, "invalid main task configuration") << element;
  }
}

TEST(TaskParserTest, NeverAcceptsAnUnscheduledTask) {
  EXPECT_EQ(Reason({{"schedule", "false"}}), "invalid scheduled time");
  EXPECT_EQ(Reason({{"schedule", "false"}, {"scheduler", ""}}), "invalid scheduled time");
  EXPECT_THAT(Check({{"schedule", "false"}}).faults,
              ElementsAre(TaskFault{"schedule", "false", "invalid scheduled time"}));
}

TEST(TaskParserTest, IgnoresTheSchedulerOfAnUnscheduledTask) {
  const TaskParse parse = Parse({{"schedule", "false"}});
  EXPECT_FALSE(parse.config.schedule);
  EXPECT_EQ(parse.config.scheduler, SlaSchedulerConfig{});
}

TEST(TaskParserTest, AcceptsARunShorterThanThePeriod) {
  EXPECT_EQ(Reason({{"scheduler.time", "2"}, {"udp-jitter.num-packets", "50"}}), "invalid scheduled time");
  EXPECT_EQ(Reason({{"scheduler.time", "2"}, {"udp-jitter.num-packets", "49"}}), "accepted");
}

TEST(TaskParserTest, WrapsTheRunTimeBudgetAt32Bits) {
  // 1000 + 65536 * 65536 wraps to 1000.
  EXPECT_EQ(Reason({{"udp-jitter.interval", "65536"}, {"udp-jitter.num-packets", "65536"}}), "accepted");
  // -1 + 20 * 50 wraps to 999.
  EXPECT_EQ(Reason({{"udp-jitter.timeout", "-1"}, {"scheduler.time", "1"}}), "accepted");
  EXPECT_EQ(Reason({{"udp-jitter.timeout", "-1001"}}), "invalid scheduled time");  // 2^32 - 1
  // 4294968 s are 704 ms after the wrap.
  EXPECT_EQ(Reason({{"scheduler.time", "4294968"}}), "invalid scheduled time");
  EXPECT_EQ(Reason({{"scheduler.time", "4294968"}, {"udp-jitter.timeout", "-400"}}), "accepted");
}

TEST(TaskParserTest, KeepsALifeTimeNumberAsItsText) {
  EXPECT_EQ(Parse({{"scheduler.life-time", "3600"}}).config.scheduler.life_time, "3600");
  EXPECT_EQ(Parse({{"scheduler.life-time", "\"3600\""}}).config.scheduler.life_time, "3600");
  EXPECT_EQ(Parse({{"scheduler.life-time", "\"-1\""}}).config.scheduler.life_time, "-1");
}

TEST(TaskParserTest, TakesStartAndLifeTextsAsTheyAre) {
  const TaskParse parse = Parse({{"scheduler.Start-time", "\"whenever\""}, {"scheduler.life-time", "\"\""}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.scheduler.start_time, "whenever");
  EXPECT_EQ(parse.config.scheduler.life_time, "");
}

TEST(TaskParserTest, IgnoresAVrfThatIsNoText) {
  for (const char* vrf : {"5", "null", "{}", ""}) {
    const TaskParse parse = Parse({{"vrf-instance", vrf}});
    ASSERT_TRUE(parse.Accepted()) << vrf;
    EXPECT_EQ(parse.config.control_phase.vrf + parse.config.measurement.vrf, "") << vrf;
  }
}

TEST(TaskParserTest, TakesAnySourcePortTextThatBeginsWithAny) {
  const TaskParse parse = Parse({{"control-phase.src-port", "\"anything\""}, {"udp-jitter.src-port", "\"any\""}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_TRUE(parse.config.control_phase.src_port_any);
  EXPECT_TRUE(parse.config.measurement.src_port_any);
  EXPECT_EQ(parse.config.measurement.src.sin_port, 0);
}

TEST(TaskParserTest, AcceptsTheWholePortRange) {
  const TaskParse parse = Parse({{"control-phase.src-port", "0"},
                                 {"control-phase.dst-port", "65535"},
                                 {"udp-jitter.src-port", "65535"},
                                 {"udp-jitter.dst-port", "0"}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_FALSE(parse.config.control_phase.src_port_any);
  EXPECT_EQ(parse.config.control_phase.dst.sin_port, 0xffff);
  EXPECT_EQ(parse.config.measurement.src.sin_port, 0xffff);
  EXPECT_EQ(parse.config.measurement.dst.sin_port, 0);
}

TEST(TaskParserTest, TakesTextThatIsNoAddressAsZero) {
  const TaskParse parse = Parse({{"control-phase.src-address", "\"localhost\""},
                                 {"control-phase.dst-address", "\"10.1.1\""},
                                 {"udp-jitter.dst-address", "\"\""}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.control_phase.src.sin_addr.s_addr, 0U);
  EXPECT_EQ(parse.config.control_phase.dst.sin_addr.s_addr, 0U);
  EXPECT_EQ(parse.config.measurement.dst.sin_addr.s_addr, 0U);
}

TEST(TaskParserTest, LogsAFailedAddressConversion) {
  static_cast<void>(test::TakeSyslog());
  EXPECT_EQ(Reason({{"udp-jitter.dst-address", kFailingAddress}}), "invalid measurement phase destination ip address");
  EXPECT_THAT(test::TakeSyslogTexts(), ElementsAre("inet_pton() failed: Address family not supported by protocol"));
}

TEST(TaskParserTest, NeedsNoAlgorithmForModeNo) {
  TaskParse parse = Parse({{"control-phase.authentication", R"({"mode":"no"})"}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.auth, (SlaAuthConfig{.mode = SlaAuthMode::kNone, .key_string = ""}));
  parse = Parse({{"control-phase.authentication", R"({"mode":"no","algorithm":"md5","key-string":"ab","key-id":1})"}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.auth, (SlaAuthConfig{.mode = SlaAuthMode::kNone, .key_string = ""}));
}

TEST(TaskParserTest, ChecksTheWholeKeyIdAndStoresEightBits) {
  const TaskParse parse =
      Parse({{"control-phase.authentication", R"({"mode":"keychain","algorithm":"sha256","key-id":257})"}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.auth.mode, SlaAuthMode::kKeychain);
  EXPECT_EQ(parse.config.auth.algorithm, SlaAuthAlgorithm::kSha256);
  EXPECT_EQ(parse.config.auth.key_id, 1);
  EXPECT_EQ(parse.config.auth.key_string, "");
  EXPECT_EQ(Reason({{"control-phase.authentication", R"({"mode":"keychain","algorithm":"sha256","key-id":2})"}}),
            "invalid control phase authentication secret key id");
}

TEST(TaskParserTest, KeepsAPasswordThatIsNotHexadecimal) {
  const TaskParse parse = Parse({{"control-phase.authentication.key-string", "\"mykeytext\""}});
  EXPECT_EQ(parse.config.auth.key_string, "mykeytext");
}

TEST(TaskParserTest, TakesTheSmallestSizeOfEachTypeAndStoresThePayload) {
  struct {
    const char* type;
    int min_size;
    int payload;
  } const rows[] = {{"udp-echo", 46, 4},
                    {"udp-jitter", 70, 28},
                    {"udp-jitter-ntp", 98, 56},
                    {"icmp-echo", 42, 0},
                    {"icmp-jitter", 54, 20}};
  for (const auto& row : rows) {
    const TaskParse parse = Parse(OfType(row.type, row.min_size));
    ASSERT_TRUE(parse.Accepted()) << row.type;
    EXPECT_EQ(TestTypeToString(parse.config.sla_type), row.type);
    EXPECT_EQ(parse.config.packet_size, row.payload) << row.type;
    EXPECT_EQ(Reason(OfType(row.type, row.min_size - 1)), "invalid packets size") << row.type;
  }
}

TEST(TaskParserTest, CutsWhatDoesNotFitItsField) {
  EXPECT_EQ(Parse({{"num-rep-hist", "256"}}).config.num_rep_hist, 0);
  EXPECT_EQ(Parse({{"num-rep-hist", "257"}}).config.num_rep_hist, 1);
  EXPECT_EQ(Parse({{"udp-jitter.packet-size", "65578"}}).config.packet_size, 0);
  EXPECT_EQ(Parse({{"udp-jitter.packet-size", "65579"}}).config.packet_size, 1);
  EXPECT_EQ(Parse({{"udp-jitter.cos", "258"}}).config.cos, 2);
  EXPECT_EQ(Parse({{"udp-jitter.cos", "-1"}}).config.cos, 255);
}

TEST(TaskParserTest, LimitsNumbersToSigned32Bits) {
  const TaskParse parse = Parse({{"control-phase.retry", "1e12"}, {"control-phase.timeout", "2.9"}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.control_retry, std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(parse.config.control_timeout, 2);
  EXPECT_EQ(Reason({{"udp-jitter.interval", "-1e12"}}), "invalid packets interval");
}

TEST(TaskParserTest, TakesACosThatIsNoNumberAsZero) {
  for (const char* cos : {"\"5\"", "true", "null", "{}", "[5]"}) {
    const TaskParse parse = Parse({{"udp-jitter.cos", cos}});
    ASSERT_TRUE(parse.Accepted()) << cos;
    EXPECT_EQ(parse.config.cos, 0) << cos;
  }
}

TEST(TaskParserTest, ComparesIdsBeforeTheyAreCut) {
  const TaskParse parse = Parse({{"sla-id", "65541"}});  // 65536 + 5
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.sla_id, 5);
  EXPECT_EQ(Parse({{"sla-id", "-1"}}).config.sla_id, 65535);
}

TEST(TaskParserTest, FindsKeysInAnyCaseAndIgnoresUnknownOnes) {
  std::string task = ValidTask();
  task.replace(task.find("\"sla-id\""), 8, "\"comment\": \"x\", \"SLA-Id\"");
  task.replace(task.find("\"udp-jitter\": {"), 12, "\"UDP-Jitter\"");
  EXPECT_TRUE(Parse(Json(task)).Accepted());
}

// Records what it is asked for.
struct RecordingLookup {
  std::int32_t status = kInterfaceFound;
  InterfaceAddress answer;
  std::vector<std::string> asked;  // "vrf/interface"

  InterfaceLookup Function() {
    return [this](const std::string& vrf, const cJSON* phase, std::int32_t* out) {
      const char* name = cJSON_GetStringValue(cJSON_GetObjectItem(phase, "src-interface"));
      asked.push_back(vrf + "/" + (name != nullptr ? name : "none"));
      *out = status;
      return answer;
    };
  }
};

InterfaceAddress SomeInterface() {
  InterfaceAddress found{.index = 4, .name = "eth4"};
  found.address.sin_family = AF_INET;
  found.address.sin_addr.s_addr = htonl(0xc0000209);
  return found;
}

TEST(TaskParserTest, TakesTheSourceFromItsInterface) {
  RecordingLookup lookup{.answer = SomeInterface(), .asked = {}};
  const JsonDocument task =
      Edited(ValidTask(), {{"control-phase.src-address", ""}, {"control-phase.src-interface", "\"eth4\""}});
  const TaskParse parse = ParseTask(task.get(), {}, {}, lookup.Function());
  ASSERT_TRUE(parse.Accepted());
  EXPECT_THAT(lookup.asked, ElementsAre("blue/eth4"));
  EXPECT_EQ(parse.config.control_phase.if_index, 4U);
  EXPECT_EQ(parse.config.control_phase.if_name, "eth4");
  EXPECT_EQ(Ipv4ToString(parse.config.control_phase.src.sin_addr), "192.0.2.9");
  EXPECT_EQ(parse.config.control_phase.src.sin_family, AF_INET);
  EXPECT_EQ(parse.config.control_phase.src.sin_port, 0);
  EXPECT_EQ(parse.config.measurement.if_index, 0U);
}

TEST(TaskParserTest, PrefersTheSourceAddressToTheInterface) {
  RecordingLookup lookup{.answer = SomeInterface(), .asked = {}};
  const JsonDocument task = Edited(ValidTask(), {{"udp-jitter.src-interface", "\"eth4\""}});
  const TaskParse parse = ParseTask(task.get(), {}, {}, lookup.Function());
  ASSERT_TRUE(parse.Accepted());
  EXPECT_THAT(lookup.asked, IsEmpty());
  EXPECT_EQ(parse.config.measurement.if_name, "");
}

TEST(TaskParserTest, AcceptsAnUnknownInterface) {
  RecordingLookup lookup{.answer = {.index = 0, .name = "eth9"}, .asked = {}};
  const JsonDocument task = Edited(ValidTask(), {{"udp-jitter.src-address", ""}});
  const TaskParse parse = ParseTask(task.get(), {}, {}, lookup.Function());
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.measurement.if_index, 0U);
  EXPECT_EQ(parse.config.measurement.if_name, "eth9");
  EXPECT_EQ(parse.config.measurement.src.sin_addr.s_addr, 0U);
}

TEST(TaskParserTest, AbandonsTheFileWhenTheEnvironmentFails) {
  for (const char* place : {"control-phase.src-address", "udp-jitter.src-address"}) {
    RecordingLookup lookup{.status = kInterfaceEnvironmentFailed, .answer = {}, .asked = {}};
    const JsonDocument task = Edited(ValidTask(), {{place, ""}});
    const TaskParse parse = ParseTask(task.get(), {}, {}, lookup.Function());
    EXPECT_TRUE(parse.abandoned) << place;
    EXPECT_FALSE(parse.fault) << place;
    EXPECT_FALSE(parse.Accepted()) << place;
  }
}

TEST(TaskParserTest, AsksNothingAboutATaskThatIsAlreadySkipped) {
  for (const char* fault : {"sla-id", "scheduler", "control-phase.timeout", "control-phase.retry"}) {
    RecordingLookup lookup{.status = kInterfaceEnvironmentFailed, .answer = {}, .asked = {}};
    const JsonDocument task = Edited(ValidTask(), {{"control-phase.src-address", ""}, {fault, ""}});
    const TaskParse parse = ParseTask(task.get(), {}, {}, lookup.Function());
    EXPECT_THAT(lookup.asked, IsEmpty()) << fault;
    EXPECT_FALSE(parse.abandoned) << fault;
  }
}

TEST(TaskCheckTest, AcceptsWhatTheDaemonAccepts) {
  const TaskCheck check = Check({});
  EXPECT_THAT(check.faults, IsEmpty());
  EXPECT_FALSE(check.abandoned);
  EXPECT_EQ(check.config, Parse(std::vector<Edit>{}).config);
}

TEST(TaskCheckTest, NamesEveryFaultInTheOrderOfTheRules) {
  const TaskCheck check = Check({{"sla-id", "5"},
                                 {"num-rep-hist", "0"},
                                 {"scheduler.Start-time", ""},
                                 {"scheduler.life-time", "-5"},
                                 {"control-phase.timeout", "0"},
                                 {"control-phase.src-port", "\"some\""},
                                 {"control-phase.dst-address", ""},
                                 {"control-phase.dst-port", "70000"},
                                 {"control-phase.authentication.algorithm", "\"md5\""},
                                 {"control-phase.authentication.key-string", ""},
                                 {"udp-jitter.packet-size", "10"},
                                 {"udp-jitter.ttl", "\"64\""},
                                 {"udp-jitter.cos", ""},
                                 {"scheduler.time", "1"}});
  const std::string auth = "control-phase.authentication.";
  EXPECT_THAT(
      check.faults,
      ElementsAre(
          TaskFault{"sla-id", "5", "duplicate task"}, TaskFault{"num-rep-hist", "0", "invalid history count value"},
          TaskFault{"scheduler.Start-time", "", "no scheduler time configuration"},
          TaskFault{"scheduler.life-time", "-5", "invalid scheduler time configuration"},
          TaskFault{"control-phase.timeout", "0", "invalid control phase timeout value"},
          TaskFault{"control-phase.src-port", "\"some\"", "invalid control phase source port configuration"},
          TaskFault{"control-phase.dst-address", "", "no control phase destination address/port configuration"},
          TaskFault{"control-phase.dst-port", "70000", "invalid destination phase destination port configuration"},
          TaskFault{auth + "algorithm", "\"md5\"", "invalid authentication algorithm configuration"},
          TaskFault{auth + "key-string", "", "no control phase authentication key string configuration"},
          TaskFault{"udp-jitter.ttl", "\"64\"", "no measurement phase parametrs configuration"},
          TaskFault{"udp-jitter.cos", "", "no measurement phase parametrs configuration"},
          TaskFault{"udp-jitter.packet-size", "10", "invalid packets size"},
          TaskFault{"scheduler.time", "1", "invalid scheduled time"}));
}

TEST(TaskCheckTest, SaysNothingAboutTheMembersOfAMissingObject) {
  EXPECT_THAT(Check({{"control-phase", ""}, {"udp-jitter", "1"}}).faults,
              ElementsAre(TaskFault{"control-phase", "", "no control phase configuration"},
                          TaskFault{"udp-jitter", "1", "no measurement phase type configuration"}));
}

TEST(TaskCheckTest, NamesEveryMissingMemberOfAnEmptyTask) {
  const TaskCheck check = CheckTask(Json("{}").get(), {}, nullptr, ConfiguredInterface);
  std::vector<std::string> keys;
  for (const TaskFault& fault : check.faults) keys.push_back(fault.key);
  EXPECT_THAT(keys, ElementsAre("sla-id", "num-rep-hist", "schedule", "control-phase", "sla-type"));
}

TEST(TaskCheckTest, ChecksKeyIdsOnlyAgainstAGivenKeychain) {
  const JsonDocument task = Edited(
      ValidTask(), {{"control-phase.authentication", R"({"mode":"keychain","algorithm":"sha256","key-id":99})"}});
  EXPECT_THAT(CheckTask(task.get(), {}, nullptr, ConfiguredInterface).faults, IsEmpty());
  const KeychainStorage keys = Keys();
  EXPECT_EQ(CheckTask(task.get(), {}, &keys, ConfiguredInterface).faults.size(), 1U);
}

TEST(TaskCheckTest, ShortensALongValue) {
  const TaskCheck check = Check({{"sla-type", "\"" + std::string(200, 'x') + "\""}});
  ASSERT_EQ(check.faults.size(), 1U);
  EXPECT_EQ(check.faults[0].value, "\"" + std::string(63, 'x') + "...");
}

TEST(TaskCheckTest, GivesUpWhenTheEnvironmentFails) {
  RecordingLookup lookup{.status = kInterfaceEnvironmentFailed, .answer = {}, .asked = {}};
  const JsonDocument task = Edited(ValidTask(), {{"control-phase.src-address", ""}, {"sla-type", ""}});
  const TaskCheck check = CheckTask(task.get(), {}, nullptr, lookup.Function());
  EXPECT_TRUE(check.abandoned);
  EXPECT_THAT(check.faults, IsEmpty());
}

TEST(ConfiguredInterfaceTest, TakesTheNameWithoutLookingItUp) {
  std::int32_t status = -1;
  const JsonDocument phase = Json(R"({"src-interface": "no such interface"})");
  const InterfaceAddress found = ConfiguredInterface("no such vrf", phase.get(), &status);
  EXPECT_EQ(status, kInterfaceFound);
  EXPECT_EQ(found.name, "no such interface");
  EXPECT_EQ(found.index, 0U);
}

TEST(ConfiguredInterfaceTest, RefusesWhatNamesNoInterface) {
  for (const char* phase : {"{}", R"({"src-interface": ""})", R"({"src-interface": 2})", "[]"}) {
    std::int32_t status = -1;
    static_cast<void>(ConfiguredInterface("", Json(phase).get(), &status));
    EXPECT_EQ(status, kInterfaceNotConfigured) << phase;
  }
}

}  // namespace
}  // namespace ipsla
