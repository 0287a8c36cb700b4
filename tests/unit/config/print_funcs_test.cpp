#include "config/print_funcs.h"

#include <arpa/inet.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/log.h"
#include "support/recording_syslog.h"

namespace ipsla {
namespace {

using testing::ElementsAre;

// Both copies of a dump, the file's as one text.
struct Dump {
  std::string file;
  std::vector<std::string> system;
};

template <typename Print>
Dump Capture(Print print) {
  test::FreshLogFile(0);
  static_cast<void>(test::TakeSyslog());
  print();
  Dump dump;
  for (const std::string& line : test::ReadLogFile(0)) dump.file += line + "\n";
  dump.system = test::TakeSyslogTexts();
  return dump;
}

Dump DumpTasks(const SlaTaskMap& tasks, const KeychainStorage& keychain) {
  return Capture([&] { PrintTaskConfigs(tasks, keychain); });
}

sockaddr_in Address(std::uint32_t address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  result.sin_port = htons(port);
  return result;
}

SlaTaskConfig ScheduledTask() {
  SlaTaskConfig task;
  task.sla_id = 12;
  task.schedule = true;
  task.scheduler = {.time = 60, .start_time = "12:30:00", .life_time = "3600"};
  task.sla_type = SlaTestType::kUdpJitterNtp;
  task.control_phase.src = Address(0xc0000201, 0);
  task.control_phase.src_port_any = true;
  task.control_phase.dst = Address(0xc0000202, 1234);
  task.control_phase.vrf = "blue";
  task.measurement.src = Address(0xc0000203, 65535);
  task.measurement.dst = Address(0xc0000204, 40000);
  task.measurement.vrf = "blue";
  task.auth = {.mode = SlaAuthMode::kKeychain,
               .algorithm = SlaAuthAlgorithm::kHmacSha256,
               .key_id = 5,
               .key_string = ""};
  task.control_timeout = 1500;
  task.control_retry = 3;
  task.num_packets = 50;
  task.packet_size = 58;
  task.interval = 20;
  task.timeout = 1000;
  task.ttl = 64;
  task.dscp = 46;
  task.cos = 5;
  task.num_rep_hist = 10;
  return task;
}

TEST(PrintTaskConfigsTest, WritesOnlyTheCountWithoutTasks) {
  const Dump dump = DumpTasks({}, {});
  EXPECT_EQ(dump.file, "List IP SLA operations: 0 tasks\n");
  EXPECT_THAT(dump.system, ElementsAre("List IP SLA operations: 0 tasks"));
}

TEST(PrintTaskConfigsTest, WritesAScheduledTaskWithAKeychainKey) {
  const Dump dump = DumpTasks({{12, ScheduledTask()}}, {{5, "the key"}});
  EXPECT_EQ(dump.file,
            "List IP SLA operations: 1 tasks\n"
            " [Task #1]\n"
            "   |- ID                 : #12\n"
            "   |- Schedule           : true\n"
            "   |- Scheduler\n"
            "   .  |- Start time      : 12:30:00\n"
            "   .  |- Lifetime        : 3600\n"
            "   .  |- Time            : 60\n"
            "   .  -\n"
            "   |- VRF instance       : blue\n"
            "   |- Control phase config\n"
            "   .  |- Source address  : 192.0.2.1\n"
            "   .  |- Source port     : any\n"
            "   .  |- Dest address    : 192.0.2.2\n"
            "   .  |- Dest port       : 1234\n"
            "   .  |- Timeout         : 1500 (milliseconds)\n"
            "   .  |- Authentication\n"
            "   .  .  |- Mode         : keychain (#3)\n"
            "\n"
            "   .  .  |- Algorithm    : HMAC-SHA-256 (#2)\n"
            "   .  .  |- Key\n"
            "   .  .  .  |- ID        : #5\n"
            "   .  .  .  |- Value     : \"the key\"\n"
            "   .  .  .  -\n"
            "   .  .  -\n"
            "   .  -\n"
            "   .  -\n"
            "   |- Operation type     : udp-jitter-ntp (#3)\n"
            "   |- Operation config\n"
            "   .  |- Source address  : 192.0.2.3\n"
            "   .  |- Source port     : 65535\n"
            "   .  |- Dest address    : 192.0.2.4\n"
            "   .  |- Dest port       : 40000\n"
            "   .  |- Count           : 50\n"
            "   .  |- Size            : 58  \t(bytes)\n"
            "   .  |- Interval        : 20  \t(milliseconds)\n"
            "   .  |- Timeout         : 1000\t(milliseconds)\n"
            "   .  |- TTL             : 64  \n"
            "   .  |- DSCP            : 46\t(PHB: Expedited Forwarding)\n"
            "   .  -\n"
            "   |- Number of reports  : 10\n"
            "   -\n");
}

TEST(PrintTaskConfigsTest, SendsEachBlockAsOneSystemLogRecord) {
  const Dump dump = DumpTasks({{12, ScheduledTask()}}, {{5, "the key"}});
  EXPECT_THAT(
      dump.system,
      ElementsAre(
          "List IP SLA operations: 1 tasks",
          " [Task #2]\n   |- ID                 : #12\n   |- Schedule           : true",
          "   |- Scheduler\n   .  |- Start time      : 12:30:00\n   .  |- Lifetime        : 3600\n"
          "   .  |- Time            : 60\n   .  -",
          "   |- VRF instance       : blue", "   |- Control phase config",
          "   .  |- Source address  : 192.0.2.1",
          "   .  |- Source port     : any\n   .  |- Dest address    : 192.0.2.2\n"
          "   .  |- Dest port       : 1234\n   .  |- Timeout         : 1500 (milliseconds)\n"
          "   .  |- Authentication\n   .  .  |- Mode         : keychain (#3)\n",
          "   .  .  |- Algorithm    : HMAC-SHA-256 (#2)\n   .  .  |- Key",
          "   .  .  .  |- ID        : #5",
          "   .  .  .  |- Value     : \"the key\"\n   .  .  .  -\n   .  .  -\n   .  -",
          "   .  -\n   |- Operation type     : udp-jitter-ntp (#3)\n   |- Operation config",
          "   .  |- Source address  : 192.0.2.3",
          "   .  |- Source port     : 65535\n   .  |- Dest address    : 192.0.2.4\n"
          "   .  |- Dest port       : 40000\n   .  |- Count           : 50\n"
          "   .  |- Size            : 58  \t(bytes)\n   .  |- Interval        : 20  "
          "\t(milliseconds)\n"
          "   .  |- Timeout         : 1000\t(milliseconds)\n   .  |- TTL             : 64  \n"
          "   .  |- DSCP            : 46\t(PHB: Expedited Forwarding)\n   .  -\n"
          "   |- Number of reports  : 10\n   -"));
}

TEST(PrintTaskConfigsTest, LeavesTheEmptyBlocksOfAPlainTaskToTheSystemLog) {
  SlaTaskConfig task;
  task.sla_id = 3;
  task.sla_type = SlaTestType::kIcmpEcho;
  task.auth.mode = SlaAuthMode::kNone;
  const Dump dump = DumpTasks({{3, task}}, {});
  EXPECT_EQ(dump.file,
            "List IP SLA operations: 1 tasks\n"
            " [Task #1]\n"
            "   |- ID                 : #3\n"
            "   |- Schedule           : false\n"
            "   |- Control phase config\n"
            "   .  |- Source address  : 0.0.0.0\n"
            "   .  |- Source port     : 0\n"
            "   .  |- Dest address    : 0.0.0.0\n"
            "   .  |- Dest port       : 0\n"
            "   .  |- Timeout         : 0 (milliseconds)\n"
            "   .  |- Authentication\n"
            "   .  .  |- Mode         : no authentication (#1)\n"
            "\n"
            "   .  .  -\n"
            "   .  -\n"
            "   |- Operation type     : icmp-echo (#4)\n"
            "   |- Operation config\n"
            "   .  |- Source address  : 0.0.0.0\n"
            "   .  |- Source port     : 0\n"
            "   .  |- Dest address    : 0.0.0.0\n"
            "   .  |- Dest port       : 0\n"
            "   .  |- Count           : 0\n"
            "   .  |- Size            : 0   \t(bytes)\n"
            "   .  |- Interval        : 0   \t(milliseconds)\n"
            "   .  |- Timeout         : 0   \t(milliseconds)\n"
            "   .  |- TTL             : 0   \n"
            "   .  |- DSCP            : 0\t(PHB: Default Forwarding)\n"
            "   .  -\n"
            "   |- Number of reports  : 0\n"
            "   -\n");
  ASSERT_EQ(dump.system.size(), 11U);
  EXPECT_EQ(dump.system[2],
            "   |- Scheduler\n   .  |- Start time      : \n   .  |- Lifetime        : \n   .  |- "
            "Time            : 0\n"
            "   .  -");
  EXPECT_EQ(dump.system[3], "   |- VRF instance       : ");
  EXPECT_EQ(dump.system[7], "   .  .  -");
}

TEST(PrintTaskConfigsTest, WritesThePasswordButItsKeyIdOnlyToTheSystemLog) {
  SlaTaskConfig task = ScheduledTask();
  task.auth = {.mode = SlaAuthMode::kPassword,
               .algorithm = SlaAuthAlgorithm::kSha256,
               .key_id = 0,
               .key_string = "pw"};
  const Dump dump = DumpTasks({{12, task}}, {});
  EXPECT_NE(dump.file.find("   .  .  |- Mode         : password (#2)\n"
                           "\n"
                           "   .  .  |- Algorithm    : SHA-256 (#1)\n"
                           "   .  .  |- Key\n"
                           "   .  .  .  |- Value     : \"pw\"\n"),
            std::string::npos)
      << dump.file;
  EXPECT_THAT(dump.system, testing::Contains("   .  .  .  |- ID        : #0"));
}

TEST(PrintTaskConfigsTest, ShowsAMissingKeychainKeyAsNoKey) {
  const Dump dump = DumpTasks({{12, ScheduledTask()}}, {{6, "another"}});
  EXPECT_NE(dump.file.find("   .  .  .  |- Value     : \"no key\"\n"), std::string::npos);
}

TEST(PrintTaskConfigsTest, ShowsAKeyUpToItsFirstZeroByte) {
  SlaTaskConfig task = ScheduledTask();
  task.auth = {.mode = SlaAuthMode::kPassword,
               .algorithm = SlaAuthAlgorithm::kSha256,
               .key_id = 0,
               .key_string = HexKeyToBytes("0x414200FF")};
  const Dump dump = DumpTasks({{12, task}}, {});
  EXPECT_NE(dump.file.find("   .  .  .  |- Value     : \"AB\"\n"), std::string::npos);
}

TEST(PrintTaskConfigsTest, PrintsNegativeNumbersUnsigned) {
  SlaTaskConfig task = ScheduledTask();
  task.timeout = -1;
  const Dump dump = DumpTasks({{12, task}}, {});
  EXPECT_NE(dump.file.find("   .  |- Timeout         : 4294967295\t(milliseconds)\n"),
            std::string::npos);
}

TEST(PrintTaskConfigsTest, NumbersTasksOddInTheFileAndEvenInTheSystemLog) {
  SlaTaskMap tasks;
  for (const std::uint16_t id : std::vector<std::uint16_t>{9, 2, 5}) {
    tasks[id] = ScheduledTask();
    tasks[id].sla_id = id;
  }
  const Dump dump = DumpTasks(tasks, {});
  const std::string rest = "   |- Schedule           : true";
  for (const char* head : {" [Task #1]\n   |- ID                 : #2\n",
                           " [Task #3]\n   |- ID                 : #5\n",
                           " [Task #5]\n   |- ID                 : #9\n"}) {
    EXPECT_NE(dump.file.find(head + rest), std::string::npos) << head;
  }
  for (const char* head : {" [Task #2]\n   |- ID                 : #2\n",
                           " [Task #4]\n   |- ID                 : #5\n",
                           " [Task #6]\n   |- ID                 : #9\n"}) {
    EXPECT_THAT(dump.system, testing::Contains(head + rest));
  }
}

TEST(PrintKeychainTest, WritesOnlyTheCountWithoutKeys) {
  const Dump dump = Capture([] { PrintKeychain({}); });
  EXPECT_EQ(dump.file, "List of keys in the storage: 0 keys\n");
  EXPECT_THAT(dump.system, ElementsAre("List of keys in the storage: 0 keys"));
}

TEST(PrintKeychainTest, NumbersKeysOddInTheFileAndEvenInTheSystemLog) {
  const Dump dump = Capture([] { PrintKeychain({{10, "ten"}, {-1, ""}, {300, "0x0a"}}); });
  EXPECT_EQ(dump.file,
            "List of keys in the storage: 3 keys\n"
            " [Key #1]\n   |- ID     : #-1\n   |- String : \"\"\n   -\n"
            " [Key #3]\n   |- ID     : #10\n   |- String : \"ten\"\n   -\n"
            " [Key #5]\n   |- ID     : #300\n   |- String : \"0x0a\"\n   -\n");
  EXPECT_THAT(dump.system,
              ElementsAre("List of keys in the storage: 3 keys",
                          " [Key #2]\n   |- ID     : #-1\n   |- String : \"\"\n   -",
                          " [Key #4]\n   |- ID     : #10\n   |- String : \"ten\"\n   -",
                          " [Key #6]\n   |- ID     : #300\n   |- String : \"0x0a\"\n   -"));
}

}  // namespace
}  // namespace ipsla
