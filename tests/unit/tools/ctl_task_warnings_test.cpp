#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/task_json.h"
#include "ctl/task_warnings.h"
#include "support/local_time_zone.h"

namespace ipsla::ctl {
namespace {

using test::Edit;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr timespec kWarnedAt{.tv_sec = 1700000000, .tv_nsec = 0};  // 2023-11-14 22:13:20 UTC

/// ValidTask() as another type, with a packet size that every type can work with.
std::string TaskOfType(const std::string& type) {
  std::string json = test::ValidTask();
  for (std::size_t at = json.find("udp-jitter"); at != std::string::npos;
       at = json.find("udp-jitter", at + 1)) {
    json.replace(at, std::string("udp-jitter").size(), type);
  }
  return json;
}

/// "key: reason" of each warning about the edited task, which the parser must accept.
std::vector<std::string> Warnings(const std::string& json, const std::vector<Edit>& edits,
                                  const KeychainStorage* keychain = nullptr) {
  const test::LocalTimeZone zone("UTC0");
  const JsonDocument task = test::Edited(json, edits);
  const TaskCheck check = CheckTask(task.get(), {}, keychain, ConfiguredInterface);
  for (const TaskFault& fault : check.faults) {
    ADD_FAILURE() << fault.key << ": " << fault.reason;
  }
  std::vector<std::string> texts;
  for (const TaskFault& warning : TaskWarnings(task.get(), check.config, keychain, kWarnedAt)) {
    texts.push_back(warning.key + ": " + warning.reason);
  }
  return texts;
}

std::vector<std::string> Warnings(const std::vector<Edit>& edits) {
  return Warnings(test::ValidTask(), edits);
}

TEST(TaskWarnings, HasNothingToSayAboutWorkingTasks) {
  for (const char* type :
       {"udp-echo", "udp-jitter", "udp-jitter-ntp", "icmp-echo", "icmp-jitter"}) {
    EXPECT_THAT(Warnings(TaskOfType(type), {}), IsEmpty()) << type;
  }
  EXPECT_THAT(Warnings({{"scheduler.life-time", "3600"}, {"scheduler.Start-time", "\"23:00:00\""}}),
              IsEmpty());
}

TEST(TaskWarnings, ShowsTheValue) {
  const JsonDocument task = test::Edited(test::ValidTask(), {{"num-rep-hist", "256"}});
  const TaskCheck check = CheckTask(task.get(), {}, nullptr, ConfiguredInterface);
  const auto warnings = TaskWarnings(task.get(), check.config, nullptr, kWarnedAt);
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_EQ(warnings[0],
            (TaskFault{"num-rep-hist", "256", "is kept as 0: histories have at most 255 entries"}));
}

TEST(TaskWarnings, NamesNumbersThatAreCut) {
  EXPECT_THAT(Warnings({{"sla-id", "65541"}}),
              ElementsAre("sla-id: is kept as 5: ids have 16 bits"));
  EXPECT_THAT(Warnings({{"sla-id", "-1"}}),
              ElementsAre("sla-id: is kept as 65535: ids have 16 bits"));
}

TEST(TaskWarnings, NamesAStartThatHasPassed) {
  EXPECT_THAT(
      Warnings({{"scheduler.Start-time", "\"22:00:00\""}}),
      ElementsAre(
          "scheduler.Start-time: has passed 13m20s ago: the first run would start in 49d16h"));
  EXPECT_THAT(
      Warnings({{"scheduler.Start-time", "\"November 14\""}}),
      ElementsAre(
          "scheduler.Start-time: has passed 22h13m ago: the first run would start in 48d18h"));
}

TEST(TaskWarnings, NamesAStartThatCannotBeReached) {
  EXPECT_THAT(Warnings({{"scheduler.Start-time", "\"soon\""}}),
              ElementsAre("scheduler.Start-time: cannot be read as a time, which ends the daemon "
                          "when it creates the "
                          "test"));
  // The latest start that there is, at the end of the year, is within what can be waited; from New
  // Year's Day it is not.
  const test::LocalTimeZone zone("UTC0");
  const JsonDocument task =
      test::Edited(test::ValidTask(), {{"scheduler.Start-time", "\"December 25\""}});
  const TaskCheck check = CheckTask(task.get(), {}, nullptr, ConfiguredInterface);
  EXPECT_THAT(TaskWarnings(task.get(), check.config, nullptr, kWarnedAt), IsEmpty());
  const timespec new_year{.tv_sec = 1672531200, .tv_nsec = 0};
  const auto warnings = TaskWarnings(task.get(), check.config, nullptr, new_year);
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_EQ(
      warnings[0].reason,
      "is 358d00h ahead, longer than the daemon can wait: the first run would start in 10d00h");
}

TEST(TaskWarnings, NamesALifeThatNeverBegins) {
  const char* no_time =
      "scheduler.life-time: leaves no time to live (text that is no number counts as 0): the test "
      "never runs";
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\"-1\""}}),
              ElementsAre("scheduler.life-time: is negative: the test never starts"));
  EXPECT_THAT(Warnings({{"scheduler.life-time", "0"}}), ElementsAre(no_time));
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\"for ever\""}}), ElementsAre(no_time));
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\"99999999999999999999\""}}),
              ElementsAre("scheduler.life-time: is longer than can be counted, which ends the "
                          "daemon when it creates "
                          "the test"));
}

TEST(TaskWarnings, NamesAddressesThatAreNone) {
  EXPECT_THAT(Warnings({{"udp-jitter.dst-address", "\"10.1.1\""}}),
              ElementsAre("udp-jitter.dst-address: is no IPv4 address and counts as 0.0.0.0"));
  EXPECT_THAT(
      Warnings({{"control-phase.dst-address", "\"responder.example\""},
                {"control-phase.src-address", "\"10.1.1.1 \""}}),
      ElementsAre(
          "control-phase.src-address: is no IPv4 address and counts as 0.0.0.0: no run can start",
          "control-phase.dst-address: is no IPv4 address and counts as 0.0.0.0"));
  EXPECT_THAT(Warnings({{"udp-jitter.dst-address", "\"0.0.0.0\""},
                        {"udp-jitter.src-address", "\"0.0.0.0\""}}),
              ElementsAre("udp-jitter.src-address: is no interface's address: no run can start",
                          "udp-jitter.dst-address: is no host's address"));
}

TEST(TaskWarnings, LeavesTheControlPhaseOfIcmpTypesAlone) {
  EXPECT_THAT(Warnings(TaskOfType("icmp-echo"), {{"control-phase.dst-address", "\"none\""},
                                                 {"control-phase.dst-port", "0"},
                                                 {"control-phase.timeout", "60000"}}),
              IsEmpty());
}

TEST(TaskWarnings, NamesKeyIdsThatAreCut) {
  const std::vector<Edit> keychain_mode{
      {"control-phase.authentication",
       R"({"mode": "keychain", "algorithm": "sha256", "key-id": 257})"}};
  const char* text =
      "control-phase.authentication.key-id: is kept as 1: key ids of tasks have 8 bits";
  EXPECT_THAT(Warnings(test::ValidTask(), keychain_mode), ElementsAre(text));
  const KeychainStorage both{{1, "one"}, {257, "many"}};
  EXPECT_THAT(Warnings(test::ValidTask(), keychain_mode, &both), ElementsAre(text));
  const KeychainStorage wide{{257, "many"}};
  EXPECT_THAT(Warnings(test::ValidTask(), keychain_mode, &wide),
              ElementsAre(std::string(text) + ", and there is no such key"));
}

TEST(TaskWarnings, NamesPortsThatCannotWork) {
  EXPECT_THAT(Warnings({{"control-phase.dst-port", "0"}}),
              ElementsAre("control-phase.dst-port: cannot be reached"));
  EXPECT_THAT(
      Warnings({{"control-phase.src-port", "2000"}, {"udp-jitter.src-address", "\"192.0.2.1\""}}),
      ElementsAre("udp-jitter.src-port: is the control phase's source port too: no run can start"));
  EXPECT_THAT(Warnings({{"control-phase.src-port", "2000"}}), IsEmpty())
      << "two addresses, one port";
}

TEST(TaskWarnings, NamesPacketSizesWithoutAWholeIcmpHeader) {
  const struct {
    const char *type, *size;
    std::vector<std::string> warnings;
  } cases[] = {
      {"icmp-echo",
       "42",
       {"icmp-echo.packet-size: leaves 0 of the 8 bytes of the ICMP message's header; the smallest "
        "that works is 70"}},
      {"icmp-echo",
       "69",
       {"icmp-echo.packet-size: leaves 7 of the 8 bytes of the ICMP message's header; the smallest "
        "that works is 70"}},
      {"icmp-echo", "70", {}},
      {"icmp-jitter",
       "54",
       {"icmp-jitter.packet-size: leaves 0 of the 20 bytes of the ICMP message's header; the "
        "smallest that works is "
        "74"}},
      {"icmp-jitter",
       "73",
       {"icmp-jitter.packet-size: leaves 19 of the 20 bytes of the ICMP message's header; the "
        "smallest that works is "
        "74"}},
      {"icmp-jitter", "74", {}},
      {"icmp-echo", "65577", {}},
      {"icmp-echo",
       "65578",
       {"icmp-echo.packet-size: leaves 65516 bytes of ICMP message, and IPv4 carries 65515"}},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(Warnings(TaskOfType(one.type), {{std::string(one.type) + ".packet-size", one.size}}),
              one.warnings)
        << one.type << " " << one.size;
  }
}

TEST(TaskWarnings, NamesUdpPacketSizesThatCannotWork) {
  const char* indistinct =
      "udp-echo.packet-size: leaves 23 bytes of payload, too few for the sequence number that ends "
      "at byte 24 of a reply: replies cannot be told apart; the smallest that works is 66";
  EXPECT_THAT(Warnings(TaskOfType("udp-echo"), {{"udp-echo.packet-size", "65"}}),
              ElementsAre(indistinct));
  EXPECT_THAT(Warnings(TaskOfType("udp-echo"), {{"udp-echo.packet-size", "66"}}), IsEmpty());
  EXPECT_THAT(Warnings(TaskOfType("udp-echo"),
                       {{"udp-echo.packet-size", "46"}, {"udp-echo.num-packets", "1"}}),
              IsEmpty())
      << "one probe needs no telling apart";
  EXPECT_THAT(Warnings({{"udp-jitter.packet-size", "70"}}), IsEmpty());
  EXPECT_THAT(Warnings({{"udp-jitter.packet-size", "65549"}}), IsEmpty());
  EXPECT_THAT(
      Warnings({{"udp-jitter.packet-size", "65550"}}),
      ElementsAre("udp-jitter.packet-size: leaves 65508 bytes of payload, and UDP carries 65507"));
}

TEST(TaskWarnings, NamesProbesThatCannotWork) {
  EXPECT_THAT(Warnings({{"udp-jitter.ttl", "0"}}),
              ElementsAre("udp-jitter.ttl: is refused by the kernel: no run can start"));
  EXPECT_THAT(Warnings({{"udp-jitter.timeout", "0"}}),
              ElementsAre("udp-jitter.timeout: leaves the replies no time"));
  EXPECT_THAT(Warnings({{"udp-jitter.cos", "\"5\""}}),
              ElementsAre("udp-jitter.cos: is no number and counts as 0"));
  EXPECT_THAT(Warnings({{"udp-jitter.cos", "8"}}),
              ElementsAre("udp-jitter.cos: is no 802.1p priority (0 to 7)"));
  EXPECT_THAT(Warnings(TaskOfType("icmp-echo"),
                       {{"icmp-echo.num-packets", "65536"}, {"icmp-echo.interval", "0"}}),
              ElementsAre("icmp-echo.num-packets: is more than the 16-bit sequence numbers of this "
                          "type can tell apart"));
}

TEST(TaskWarnings, NamesTheFiguresOfARunThatCanStall) {
  // 1500 + 1000 + 50 x (20 + 7) = 3850 ms
  EXPECT_THAT(Warnings({{"scheduler.time", "4"}}), IsEmpty());
  EXPECT_THAT(
      Warnings({{"scheduler.time", "3"}}),
      ElementsAre("scheduler.time: a run that loses packets can last 3850 ms (control phase 1500 + "
                  "timeout 1000 "
                  "+ 50 x (20 + 7)), longer than 3000 ms: the next would start 49d17h later"));
  EXPECT_THAT(Warnings(TaskOfType("icmp-echo"), {{"scheduler.time", "3"}}), IsEmpty())
      << "1000 + 50 x 20 = 2000";
}

TEST(TaskWarnings, AllowsARunExactlyAsLongAsThePeriod) {
  EXPECT_THAT(Warnings({{"scheduler.time", "4"}, {"control-phase.timeout", "1650"}}), IsEmpty());
  EXPECT_EQ(Warnings({{"scheduler.time", "4"}, {"control-phase.timeout", "1651"}}).size(), 1U);
}

TEST(TaskWarnings, SeesThroughTheWrappingArithmeticOfTheParser) {
  EXPECT_THAT(Warnings(TaskOfType("icmp-echo"),
                       {{"icmp-echo.num-packets", "65535"}, {"icmp-echo.interval", "65537"}}),
              ElementsAre("scheduler.time: a run that loses packets can last 4294968295 ms "
                          "(timeout 1000 + 65535 x 65537), longer "
                          "than 60000 ms: the next would start 49d17h later"));
  EXPECT_THAT(
      Warnings({{"scheduler.time", "4294970"}}),
      ElementsAre("scheduler.time: is longer than the daemon can wait: runs would start every 2s"));
}

}  // namespace
}  // namespace ipsla::ctl
