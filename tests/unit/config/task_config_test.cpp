#include "config/task_config.h"

#include <arpa/inet.h>

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
