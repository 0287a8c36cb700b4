#include "config/task_config.h"

#include <arpa/inet.h>

#include <functional>
#include <map>

#include <gtest/gtest.h>

namespace ipsla {
namespace {

TEST(TaskConfigTest, AFreshRecordHasNoType) {
  const SlaTaskConfig task;
  EXPECT_EQ(task.sla_type, SlaTestType::kNone);
  EXPECT_EQ(static_cast<int>(task.sla_type), -1);
  EXPECT_EQ(TestTypeToString(task.sla_type), "undefined");
  EXPECT_EQ(task.auth.mode, SlaAuthMode::kUndefined);
  EXPECT_FALSE(task.schedule);
}

// Compares a table with every value of 0..255, the listed ones and all others.
template <typename Value>
void ExpectNames(std::string (*name)(Value), const std::map<int, std::string>& words,
                 const std::string& fallback) {
  for (int value = 0; value <= 255; ++value) {
    const auto found = words.find(value);
    EXPECT_EQ(name(static_cast<Value>(value)), found == words.end() ? fallback : found->second)
        << value;
  }
}

TEST(TaskConfigTest, NamesTestTypes) {
  ExpectNames(TestTypeToString,
              {{1, "udp-echo"},
               {2, "udp-jitter"},
               {3, "udp-jitter-ntp"},
               {4, "icmp-echo"},
               {5, "icmp-jitter"}},
              "undefined");
  EXPECT_EQ(TestTypeToString(static_cast<SlaTestType>(-1)), "undefined");
  EXPECT_EQ(TestTypeToString(static_cast<SlaTestType>(INT32_MIN)), "undefined");
  EXPECT_EQ(TestTypeToString(static_cast<SlaTestType>(INT32_MAX)), "undefined");
}

TEST(TaskConfigTest, NamesAuthentication) {
  ExpectNames(AuthModeToString, {{1, "no authentication"}, {2, "password"}, {3, "keychain"}},
              "undefined");
  ExpectNames(AuthAlgorithmToString, {{1, "SHA-256"}, {2, "HMAC-SHA-256"}}, "undefined");
}

TEST(TaskConfigTest, NamesControlStatuses) {
  ExpectNames(ControlStatusToString,
              {{0, "successful"},
               {1, "fail"},
               {2, "authentication fail"},
               {3, "format error"},
               {4, "requested port is busy"},
               {5, "unsupported protocol version"},
               {6, "invalid status"},
               {7, "invalid length"},
               {8, "unsupported address"},
               {9, "unsupported role"},
               {10, "unsupported authentication mode"},
               {11, "unsupported authentication algorithm"},
               {12, "unsupported operation type"},
               {13, "unknown internal error"}},
              "undefined");
  EXPECT_EQ(ControlStatusToString(static_cast<SlaControlStatus>(65535)), "undefined");
  EXPECT_EQ(ControlStatusToString(static_cast<SlaControlStatus>(256)), "undefined");
}

TEST(TaskConfigTest, NamesMessageFields) {
  ExpectNames(CsldTypeToString, {{1, "authentication CSLD"}, {2, "measurement CSLD"}}, "undefined");
  ExpectNames(AddressTypeToString, {{2, "IPv4"}, {3, "IPv6"}}, "undefined");
  ExpectNames(RoleToString, {{1, "responder"}, {2, "sender"}}, "undefined");
}

TEST(TaskConfigTest, NamesResultsAndStates) {
  ExpectNames(ResultToString, {{0, "successful"}, {1, "fail"}}, "undefined");
  ExpectNames(PacketStateToString,
              {{0, "sent"}, {1, "received"}, {2, "skipped"}, {3, "loss sd"}, {4, "loss ds"}},
              "undefined");
  EXPECT_EQ(BoolToString(true), "true");
  EXPECT_EQ(BoolToString(false), "false");
}

TEST(TaskConfigTest, NamesPriorities) {
  ExpectNames(CosToPriorityName,
              {{0, "Best Effort"},
               {1, "Background"},
               {2, "Spare"},
               {3, "Excellent Effort"},
               {4, "Controlled Load"},
               {5, "Video"},
               {6, "Voice"},
               {7, "Network Control"}},
              "Undefined");
}

TEST(TaskConfigTest, NamesPerHopBehavioursAndLeavesGapsUndefined) {
  ExpectNames(
      DscpToPhbName,
      {{0, "Default Forwarding"},     {1, "Default Forwarding"},     {2, "Default Forwarding"},
       {3, "Default Forwarding"},     {4, "Default Forwarding"},     {8, "Class Selector 1"},
       {10, "Assured Forwarding 11"}, {12, "Assured Forwarding 12"}, {14, "Assured Forwarding 13"},
       {16, "Class Selector 2"},      {18, "Assured Forwarding 21"}, {20, "Assured Forwarding 22"},
       {22, "Assured Forwarding 23"}, {24, "Class Selector 3"},      {26, "Assured Forwarding 31"},
       {28, "Assured Forwarding 32"}, {30, "Assured Forwarding 33"}, {32, "Class Selector 4"},
       {34, "Assured Forwarding 41"}, {36, "Assured Forwarding 42"}, {38, "Assured Forwarding 43"},
       {40, "Class Selector 5"},      {44, "Voice Admit"},           {46, "Expedited Forwarding"},
       {48, "Class Selector 6"},      {56, "Class Selector 7"}},
      "Undefined PHB");
}

TEST(TaskConfigTest, PrintsTheScheduleTime) {
  EXPECT_EQ(ScheduleTimeToString({.time = 60, .start_time = "", .life_time = ""}), "60");
  EXPECT_EQ(ScheduleTimeToString({.time = -1, .start_time = "", .life_time = ""}), "-1");
}

TEST(TaskConfigTest, PrintsTheSourcePort) {
  SlaEndpointConfig endpoint;
  endpoint.src.sin_port = htons(65535);
  EXPECT_EQ(SourcePortToString(endpoint), "65535");
  endpoint.src_port_any = true;
  EXPECT_EQ(SourcePortToString(endpoint), "any");
}

TEST(TaskConfigTest, PrintsAddresses) {
  EXPECT_EQ(Ipv4ToString({htonl(0x00000000)}), "0.0.0.0");
  EXPECT_EQ(Ipv4ToString({htonl(0xc0000201)}), "192.0.2.1");
  EXPECT_EQ(Ipv4ToString({htonl(0xffffffff)}), "255.255.255.255");
}

TEST(TaskConfigTest, KnowsTheWordsOfTheFilesAndNoOthers) {
  const std::map<std::string, int> types = {
      {"udp-echo", 1},    {"udp-jitter", 2},  {"udp-jitter-ntp", 3}, {"icmp-echo", 4},
      {"icmp-jitter", 5}, {"", -1},           {"UDP-echo", -1},      {"udp-echo ", -1},
      {"undefined", -1},  {"udp-jitter-", -1}};
  for (const auto& [word, type] : types)
    EXPECT_EQ(static_cast<int>(TestTypeFromString(word)), type) << word;
  const std::map<std::string, int> modes = {{"no", 1},  {"password", 2}, {"keychain", 3},
                                            {"", 0},    {"No", 0},       {"no authentication", 0},
                                            {"none", 0}};
  for (const auto& [word, mode] : modes)
    EXPECT_EQ(static_cast<int>(AuthModeFromString(word)), mode) << word;
  const std::map<std::string, int> algorithms = {{"sha256", 1},  {"hmac-sha256", 2},  {"", 0},
                                                 {"SHA-256", 0}, {"HMAC-SHA-256", 0}, {"md5", 0}};
  for (const auto& [word, number] : algorithms) {
    EXPECT_EQ(static_cast<int>(AuthAlgorithmFromString(word)), number) << word;
  }
}

TEST(TaskConfigTest, KnowsSizesOfEachType) {
  struct {
    int type;
    int min_size;
    int header;
    bool jitter;
  } const rows[] = {{-1, 34, 34, false}, {0, 34, 34, false}, {1, 46, 42, false},
                    {2, 70, 42, true},   {3, 98, 42, true},  {4, 42, 42, false},
                    {5, 54, 34, true},   {6, 34, 34, false}};
  for (const auto& row : rows) {
    const auto type = static_cast<SlaTestType>(row.type);
    EXPECT_EQ(MinPacketSize(type), row.min_size) << row.type;
    EXPECT_EQ(PacketHeaderSize(type), row.header) << row.type;
    EXPECT_EQ(IsJitterType(type), row.jitter) << row.type;
  }
}

TEST(TaskConfigTest, ConvertsHexadecimalKeys) {
  const std::map<std::string, std::string> keys = {
      {"0x0a1B", "\x0a\x1b"},
      {"1234", "\x12\x34"},
      {"abc", "\xab\x0c"},
      {"0xabc", "\xab\x0c"},
      {"0x", ""},
      {"", ""},
      {"f", "\x0f"},
      {"FFfe", "\xff\xfe"},
      {"0x0", std::string(1, '\0')},
      {"00", std::string(1, '\0')},
      {"mykeytext", "mykeytext"},
      {"0xmykey", "0xmykey"},
      {"0X12", "0X12"},
      {"0x0x12", "0x0x12"},
      {"12 34", "12 34"},
      {"\xe4", "\xe4"},  // a negative char where char is signed
  };
  for (const auto& [text, bytes] : keys) EXPECT_EQ(HexKeyToBytes(text), bytes) << text;
}

// Every field must count: a reload that changes only this one has to be noticed.
TEST(TaskConfigTest, ADifferenceInAnyFieldMakesTasksDiffer) {
  const std::vector<std::function<void(SlaTaskConfig*)>> changes = {
      [](auto* task) { task->sla_id = 1; },
      [](auto* task) { task->schedule = true; },
      [](auto* task) { task->sla_type = SlaTestType::kIcmpEcho; },
      [](auto* task) { task->scheduler.time = 1; },
      [](auto* task) { task->scheduler.start_time = "now"; },
      [](auto* task) { task->scheduler.life_time = "forever"; },
      [](auto* task) { task->control_phase.if_index = 1; },
      [](auto* task) { task->control_phase.if_name = "lo"; },
      [](auto* task) { task->control_phase.src.sin_family = AF_INET; },
      [](auto* task) { task->control_phase.src.sin_port = 1; },
      [](auto* task) { task->control_phase.src.sin_addr.s_addr = 1; },
      [](auto* task) { task->control_phase.dst.sin_port = 1; },
      [](auto* task) { task->control_phase.dst.sin_addr.s_addr = 1; },
      [](auto* task) { task->control_phase.src_port_any = true; },
      [](auto* task) { task->control_phase.vrf = "blue"; },
      [](auto* task) { task->auth.mode = SlaAuthMode::kNone; },
      [](auto* task) { task->auth.algorithm = SlaAuthAlgorithm::kSha256; },
      [](auto* task) { task->auth.key_id = 1; },
      [](auto* task) { task->auth.key_string = "key"; },
      [](auto* task) { task->control_timeout = 1; },
      [](auto* task) { task->control_retry = 1; },
      [](auto* task) { task->measurement.if_index = 1; },
      [](auto* task) { task->measurement.src.sin_addr.s_addr = 1; },
      [](auto* task) { task->measurement.dst.sin_port = 1; },
      [](auto* task) { task->measurement.src_port_any = true; },
      [](auto* task) { task->measurement.vrf = "blue"; },
      [](auto* task) { task->num_packets = 1; },
      [](auto* task) { task->packet_size = 1; },
      [](auto* task) { task->interval = 1; },
      [](auto* task) { task->timeout = 1; },
      [](auto* task) { task->ttl = 1; },
      [](auto* task) { task->dscp = 1; },
      [](auto* task) { task->cos = 1; },
      [](auto* task) { task->num_rep_hist = 1; },
  };
  for (std::size_t i = 0; i < changes.size(); ++i) {
    SlaTaskConfig task;
    EXPECT_EQ(task, SlaTaskConfig{});
    changes[i](&task);
    EXPECT_NE(task, SlaTaskConfig{}) << "change " << i;
  }
}

TEST(TaskConfigTest, PaddingOfAnAddressDoesNotCount) {
  SlaTaskConfig task;
  task.measurement.src.sin_zero[3] = 1;
  EXPECT_EQ(task, SlaTaskConfig{});
}

}  // namespace
}  // namespace ipsla
