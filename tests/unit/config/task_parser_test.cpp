#include "config/task_parser.h"

#include <arpa/inet.h>

#include <limits>

#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/task_faults.h"
#include "support/recording_syslog.h"

namespace ipsla {
namespace {

using test::Check;
using test::Edit;
using test::Edited;
using test::Json;
using test::kFailingAddress;
using test::Parse;
using test::Reason;
using test::RecordingLookup;
using test::ValidTask;
using testing::ElementsAre;
using testing::IsEmpty;

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
  EXPECT_EQ(Reason({{"scheduler.time", "2"}, {"udp-jitter.num-packets", "50"}}),
            "invalid scheduled time");
  EXPECT_EQ(Reason({{"scheduler.time", "2"}, {"udp-jitter.num-packets", "49"}}), "accepted");
}

TEST(TaskParserTest, WrapsTheRunTimeBudgetAt32Bits) {
  // 1000 + 65536 * 65536 wraps to 1000.
  EXPECT_EQ(Reason({{"udp-jitter.interval", "65536"}, {"udp-jitter.num-packets", "65536"}}),
            "accepted");
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
  const TaskParse parse =
      Parse({{"scheduler.Start-time", "\"whenever\""}, {"scheduler.life-time", "\"\""}});
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
  const TaskParse parse =
      Parse({{"control-phase.src-port", "\"anything\""}, {"udp-jitter.src-port", "\"any\""}});
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

TEST(TaskParserTest, HandsOutWhatAFailedAddressConversionSaid) {
  const TaskParse parse = Parse({{"udp-jitter.dst-address", kFailingAddress}});
  EXPECT_EQ(parse.fault, "invalid measurement phase destination ip address");
  EXPECT_EQ(parse.conversion_failure,
            "inet_pton() failed: Address family not supported by protocol");
}

TEST(TaskParserTest, NeedsNoAlgorithmForModeNo) {
  TaskParse parse = Parse({{"control-phase.authentication", R"({"mode":"no"})"}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.auth, (SlaAuthConfig{.mode = SlaAuthMode::kNone, .key_string = ""}));
  parse = Parse({{"control-phase.authentication",
                  R"({"mode":"no","algorithm":"md5","key-string":"ab","key-id":1})"}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.auth, (SlaAuthConfig{.mode = SlaAuthMode::kNone, .key_string = ""}));
}

TEST(TaskParserTest, ChecksTheWholeKeyIdAndStoresEightBits) {
  const TaskParse parse = Parse({{"control-phase.authentication",
                                  R"({"mode":"keychain","algorithm":"sha256","key-id":257})"}});
  ASSERT_TRUE(parse.Accepted());
  EXPECT_EQ(parse.config.auth.mode, SlaAuthMode::kKeychain);
  EXPECT_EQ(parse.config.auth.algorithm, SlaAuthAlgorithm::kSha256);
  EXPECT_EQ(parse.config.auth.key_id, 1);
  EXPECT_EQ(parse.config.auth.key_string, "");
  EXPECT_EQ(Reason({{"control-phase.authentication",
                     R"({"mode":"keychain","algorithm":"sha256","key-id":2})"}}),
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
  const TaskParse parse =
      Parse({{"control-phase.retry", "1e12"}, {"control-phase.timeout", "2.9"}});
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

InterfaceAddress SomeInterface() {
  InterfaceAddress found{.index = 4, .name = "eth4"};
  found.address.sin_family = AF_INET;
  found.address.sin_addr.s_addr = htonl(0xc0000209);
  return found;
}

TEST(TaskParserTest, AsksForNoNameWhereTheInterfaceIsNoText) {
  for (const char* interface : {"5", "null", "\"\"", "[\"lo\"]"}) {
    RecordingLookup lookup{.status = kInterfaceNotConfigured, .answer = {}, .asked = {}};
    const JsonDocument task = Edited(ValidTask(), {{"control-phase.src-address", ""},
                                                   {"control-phase.src-interface", interface}});
    const TaskParse parse = ParseTask(task.get(), {}, {}, lookup.Function());
    EXPECT_THAT(lookup.asked, ElementsAre("blue/")) << interface;
    EXPECT_TRUE(parse.fault) << interface;
  }
}

TEST(TaskParserTest, TakesTheSourceFromItsInterface) {
  RecordingLookup lookup{.answer = SomeInterface(), .asked = {}};
  const JsonDocument task = Edited(ValidTask(), {{"control-phase.src-address", ""},
                                                 {"control-phase.src-interface", "\"eth4\""}});
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
  for (const char* fault :
       {"sla-id", "scheduler", "control-phase.timeout", "control-phase.retry"}) {
    RecordingLookup lookup{.status = kInterfaceEnvironmentFailed, .answer = {}, .asked = {}};
    const JsonDocument task = Edited(ValidTask(), {{"control-phase.src-address", ""}, {fault, ""}});
    const TaskParse parse = ParseTask(task.get(), {}, {}, lookup.Function());
    EXPECT_THAT(lookup.asked, IsEmpty()) << fault;
    EXPECT_FALSE(parse.abandoned) << fault;
  }
}

}  // namespace
}  // namespace ipsla
