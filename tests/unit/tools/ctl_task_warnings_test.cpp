#include <arpa/inet.h>

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

/// "key: reason" of each remark about the edited task, which the parser must accept; a fault's
/// begins with "fault ".
std::vector<std::string> Warnings(const std::string& json, const std::vector<Edit>& edits,
                                  const KeychainStorage* keychain = nullptr,
                                  HostView* host = nullptr) {
  const test::LocalTimeZone zone("UTC0");
  const JsonDocument task = test::Edited(json, edits);
  const TaskCheck check = CheckTask(task.get(), {}, keychain, ConfiguredInterface);
  for (const TaskFault& fault : check.faults) {
    ADD_FAILURE() << fault.key << ": " << fault.reason;
  }
  std::vector<std::string> texts;
  const TaskSurroundings around{.keychain = keychain, .now = kWarnedAt, .host = host};
  for (const Remark& remark : InspectTask(task.get(), check.config, around)) {
    const char* severity = remark.severity != Severity::kWarning ? "fault " : "";
    texts.push_back(severity + remark.fault.key + ": " + remark.fault.reason);
  }
  return texts;
}

std::vector<std::string> Warnings(const std::vector<Edit>& edits) {
  return Warnings(test::ValidTask(), edits);
}

TEST(TaskWarnings, HasNothingToSayAboutWorkingTasks) {
  for (const char* type : {"udp-echo", "udp-jitter", "icmp-echo", "icmp-jitter"}) {
    EXPECT_THAT(Warnings(TaskOfType(type), {}), IsEmpty()) << type;
  }
  EXPECT_THAT(Warnings({{"scheduler.life-time", "3600"}, {"scheduler.Start-time", "\"23:00:00\""}}),
              IsEmpty());
}

TEST(TaskWarnings, ShowsTheValue) {
  const JsonDocument task = test::Edited(test::ValidTask(), {{"num-rep-hist", "256"}});
  const TaskCheck check = CheckTask(task.get(), {}, nullptr, ConfiguredInterface);
  const auto remarks = InspectTask(task.get(), check.config, {.now = kWarnedAt});
  ASSERT_EQ(remarks.size(), 1U);
  EXPECT_EQ(remarks[0].fault,
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
  EXPECT_THAT(
      Warnings({{"scheduler.Start-time", "\"soon\""}}),
      ElementsAre("fault scheduler.Start-time: cannot be read as a time, which ends the daemon "
                  "when it creates the "
                  "test"));
  // The latest start that there is, at the end of the year, is within what can be waited; from New
  // Year's Day it is not.
  const test::LocalTimeZone zone("UTC0");
  const JsonDocument task =
      test::Edited(test::ValidTask(), {{"scheduler.Start-time", "\"December 25\""}});
  const TaskCheck check = CheckTask(task.get(), {}, nullptr, ConfiguredInterface);
  EXPECT_THAT(InspectTask(task.get(), check.config, {.now = kWarnedAt}), IsEmpty());
  const timespec new_year{.tv_sec = 1672531200, .tv_nsec = 0};
  const auto remarks = InspectTask(task.get(), check.config, {.now = new_year});
  ASSERT_EQ(remarks.size(), 1U);
  EXPECT_EQ(
      remarks[0].fault.reason,
      "is 358d00h ahead, longer than the daemon can wait: the first run would start in 10d00h");
}

TEST(TaskWarnings, NamesALifeThatNeverBegins) {
  const char* no_time =
      "scheduler.life-time: leaves no time to live (text that is no number counts as 0): the test "
      "never runs";
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\"-1\""}}), IsEmpty()) << "parked on purpose";
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\"-2\""}}),
              ElementsAre("scheduler.life-time: is negative: the test never starts; \"-1\" says so "
                          "on purpose"));
  EXPECT_THAT(Warnings({{"scheduler.life-time", "0"}}), ElementsAre(no_time));
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\"for ever\""}}), ElementsAre(no_time));
  EXPECT_THAT(
      Warnings({{"scheduler.life-time", "\"99999999999999999999\""}}),
      ElementsAre("fault scheduler.life-time: is longer than can be counted, which ends the "
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
              ElementsAre("fault " + std::string(text) +
                          ", and there is no such key, which ends the daemon when it creates the "
                          "test"));
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

TEST(TaskWarnings, NamesATailOfTheStartThatIsNotRead) {
  EXPECT_THAT(Warnings({{"scheduler.Start-time", "\"23:00:00 tomorrow\""}}),
              ElementsAre("scheduler.Start-time: has a tail that is not read: \" tomorrow\""));
  EXPECT_THAT(Warnings({{"scheduler.Start-time", "\"December 20 25:00:00\""}}),
              ElementsAre("scheduler.Start-time: has a tail that is not read: \" 25:00:00\""));
  EXPECT_THAT(Warnings({{"scheduler.Start-time", "\"December 45\""}}),
              ElementsAre("scheduler.Start-time: has a tail that is not read: \"5\""));
  EXPECT_THAT(Warnings({{"scheduler.Start-time", "\"November 31\""}}),
              ElementsAre("scheduler.Start-time: is no day of this year: it is taken for December "
                          "01"));
  EXPECT_THAT(Warnings({{"scheduler.Start-time", "\"dec 5 1:2:3\""}}), IsEmpty());
  EXPECT_THAT(Warnings({{"scheduler.Start-time", "\"December5\""}}),
              ElementsAre("scheduler.Start-time: is not written like \"12:30:00\", \"March 05\" or "
                          "\"March 05 12:30:00\""));
}

TEST(TaskWarnings, NamesATailOfTheLifeThatIsNotRead) {
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\"1h\""}}),
              ElementsAre("scheduler.life-time: is 1 second: \"h\" is not read"));
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\"3600 s\""}}),
              ElementsAre("scheduler.life-time: is 3600 seconds: \" s\" is not read"));
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\" +3600\""}}), IsEmpty());
  EXPECT_THAT(Warnings({{"scheduler.life-time", "\"99999999999\""}}),
              ElementsAre("scheduler.life-time: is longer than the clock counts: it is taken for "
                          "\"forever\""));
}

TEST(TaskWarnings, NamesPasswordsThatAreTakenAsHexadecimal) {
  const auto warnings = [](const std::string& key) {
    return Warnings({{"control-phase.authentication.key-string", "\"" + key + "\""}});
  };
  constexpr const char* kKey = "control-phase.authentication.key-string: ";
  EXPECT_THAT(warnings("12345678"),
              ElementsAre(kKey + std::string("is taken as hexadecimal digits, 4 bytes; with 0x "
                                             "before them that is said on purpose, and a "
                                             "keychain's keys are taken as text")));
  EXPECT_THAT(warnings("a"), ElementsAre(testing::HasSubstr("digits, 1 byte; ")));
  EXPECT_THAT(warnings("0x12345678"), IsEmpty());
  EXPECT_THAT(warnings("0x123"),
              ElementsAre(kKey + std::string("is an odd number of hexadecimal digits: the last one "
                                             "is a byte by itself")));
  EXPECT_THAT(warnings("0x"), ElementsAre(kKey + std::string("is an empty key")));
  EXPECT_THAT(warnings("12345678z"), IsEmpty());
}

TEST(TaskWarnings, NamesDestinationsThatAreNoHost) {
  const auto warnings = [](const std::string& address) {
    return Warnings({{"udp-jitter.dst-address", "\"" + address + "\""}});
  };
  constexpr const char* kMulticast =
      "udp-jitter.dst-address: is a multicast address: no single host answers";
  EXPECT_THAT(warnings("224.0.0.1"), ElementsAre(kMulticast));
  EXPECT_THAT(warnings("239.255.255.255"), ElementsAre(kMulticast));
  EXPECT_THAT(warnings("223.255.255.255"), IsEmpty());
  EXPECT_THAT(warnings("240.0.0.1"),
              ElementsAre("udp-jitter.dst-address: is a reserved address: no host has it"));
  EXPECT_THAT(
      warnings("255.255.255.255"),
      ElementsAre("udp-jitter.dst-address: is the broadcast address: no single host answers"));
}

TEST(TaskWarnings, NamesProbesWhoseRecordsDoNotFitTheMemory) {
  const auto warnings = [](const char* count) {
    return Warnings({{"udp-jitter.num-packets", count},
                     {"udp-jitter.interval", "0"},
                     {"scheduler.time", "100000"}});
  };
  EXPECT_THAT(warnings("1000000"), IsEmpty());
  EXPECT_THAT(warnings("1000001"),
              ElementsAre("udp-jitter.num-packets: takes the daemon more than 100 MB: up to "
                          "1000000 is usual"));
  EXPECT_THAT(warnings("10000000"), testing::SizeIs(1));
  EXPECT_THAT(warnings("10000001"),
              ElementsAre("fault udp-jitter.num-packets: is more than the daemon has memory for, "
                          "which ends it: at most 10000000 are safe"));
}

TEST(TaskWarnings, NamesTheTypeThatMeasuresNothing) {
  EXPECT_THAT(Warnings(TaskOfType("udp-jitter-ntp"), {}),
              ElementsAre("sla-type: gives figures that mean nothing; udp-jitter measures"));
}

TEST(TaskWarnings, NamesSourcesThatAreNotWhatTheySay) {
  EXPECT_THAT(Warnings({{"udp-jitter.src-port", "\"anything\""}}),
              ElementsAre("udp-jitter.src-port: counts as \"any\""));
  EXPECT_THAT(Warnings({{"udp-jitter.src-address", ""},
                        {"udp-jitter.src-interface", "\"an-interface-16b\""}}),
              ElementsAre("udp-jitter.src-interface: is longer than 15 bytes, and no interface has "
                          "such a name"));
}

TEST(TaskWarnings, NamesVrfsThatCannotBeOne) {
  constexpr const char* kText =
      "fault vrf-instance: cannot be the name of a network namespace, which ends the daemon when "
      "it creates the test";
  EXPECT_THAT(Warnings({{"vrf-instance", "\"a/b\""}}), ElementsAre(kText));
  EXPECT_THAT(Warnings({{"vrf-instance", "\"..\""}}), ElementsAre(kText));
  EXPECT_THAT(Warnings({{"vrf-instance", "\"\""}}), IsEmpty());
}

/// A machine with one VRF, "blue".
class FakeHost : public HostView {
 public:
  std::string VrfFault(const std::string& vrf) override {
    return vrf == "blue" ? "" : "/var/run/netns/" + vrf + ": no such file";
  }
  std::string ReturnFault() override { return return_fault; }
  const HostInterfaces& Interfaces(const std::string& vrf) override {
    return vrf == "blue" ? blue : own;
  }
  bool HasCpu(std::uint8_t cpu) override { return cpu < 2; }

  static in_addr Address(const char* text) {
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1);
    return address;
  }

  std::string return_fault;
  HostInterfaces own{.found{{}}};
  HostInterfaces blue{.found{{{.name = "lo", .addresses = {Address("127.0.0.1")}},
                              {.name = "eth0",
                               .addresses = {Address("192.0.2.1"), Address("192.0.2.3")},
                               .broadcasts = {Address("192.0.2.255")}},
                              {.name = "eth1"}}}};
};

std::vector<std::string> HostWarnings(const std::vector<Edit>& edits, FakeHost host = {}) {
  return Warnings(test::ValidTask(), edits, nullptr, &host);
}

TEST(TaskWarningsOfAHost, HaveNothingToSayWhereEverythingIsThere) {
  EXPECT_THAT(HostWarnings({}), IsEmpty());
  EXPECT_THAT(
      HostWarnings({{"udp-jitter.src-address", ""}, {"udp-jitter.src-interface", "\"eth0\""}}),
      IsEmpty());
}

TEST(TaskWarningsOfAHost, NameAVrfThatCannotBeEntered) {
  EXPECT_THAT(
      HostWarnings({{"vrf-instance", "\"red\""}}).front(),
      "fault vrf-instance: cannot be entered (/var/run/netns/red: no such file), which ends "
      "the daemon when it creates the test");
}

TEST(TaskWarningsOfAHost, NameAWayBackThatIsMissing) {
  FakeHost host;
  host.return_fault = "/var/run/netns/1: no such file";
  EXPECT_THAT(HostWarnings({}, host),
              ElementsAre("fault vrf-instance: needs the daemon's own network namespace under the "
                          "name 1 (/var/run/netns/1: no such file): without it the daemon ends or "
                          "measures elsewhere"));
}

TEST(TaskWarningsOfAHost, NameSourcesThatItDoesNotHave) {
  EXPECT_THAT(HostWarnings({{"control-phase.src-address", "\"192.0.2.9\""},
                            {"udp-jitter.src-address", "\"127.0.0.1\""}}),
              ElementsAre("control-phase.src-address: is on no interface of VRF \"blue\": no run "
                          "can start until it is"));
  EXPECT_THAT(HostWarnings({{"vrf-instance", "\"\""}}).front(),
              "control-phase.src-address: is on no interface of this machine: no run can start "
              "until it is");
  EXPECT_THAT(
      HostWarnings({{"udp-jitter.src-address", ""}, {"udp-jitter.src-interface", "\"eth9\""}}),
      ElementsAre("udp-jitter.src-interface: is not there in VRF \"blue\": no run can start "
                  "until it is"));
  EXPECT_THAT(
      HostWarnings({{"udp-jitter.src-address", ""}, {"udp-jitter.src-interface", "\"eth1\""}}),
      ElementsAre("udp-jitter.src-interface: has no IPv4 address: no run can start until it "
                  "has"));
}

TEST(TaskWarningsOfAHost, NameBroadcastsOfItsNetworks) {
  EXPECT_THAT(HostWarnings({{"udp-jitter.dst-address", "\"192.0.2.255\""}}),
              ElementsAre("udp-jitter.dst-address: is the broadcast address of interface eth0: no "
                          "single host answers"));
}

TEST(TaskWarningsOfAHost, SayNothingOfANamespaceThatCannotBeLookedAt) {
  FakeHost host;
  host.blue = {.found = std::nullopt, .fault = "not permitted"};
  EXPECT_THAT(HostWarnings({{"udp-jitter.src-address", "\"203.0.113.9\""}}, host), IsEmpty());
}

}  // namespace
}  // namespace ipsla::ctl
