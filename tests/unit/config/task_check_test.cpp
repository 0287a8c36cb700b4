// What a checker sees: every fault of a task.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/task_faults.h"
#include "config/task_parser.h"

namespace ipsla {
namespace {

using test::Check;
using test::Edit;
using test::Edited;
using test::Json;
using test::Keys;
using test::Parse;
using test::RecordingLookup;
using test::ValidTask;
using testing::ElementsAre;
using testing::IsEmpty;

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
          TaskFault{"sla-id", "5", "duplicate task"},
          TaskFault{"num-rep-hist", "0", "invalid history count value"},
          TaskFault{"scheduler.Start-time", "", "no scheduler time configuration"},
          TaskFault{"scheduler.life-time", "-5", "invalid scheduler time configuration"},
          TaskFault{"control-phase.timeout", "0", "invalid control phase timeout value"},
          TaskFault{"control-phase.src-port", "\"some\"",
                    "invalid control phase source port configuration"},
          TaskFault{"control-phase.dst-address", "",
                    "no control phase destination address/port configuration"},
          TaskFault{"control-phase.dst-port", "70000",
                    "invalid destination phase destination port configuration"},
          TaskFault{auth + "algorithm", "\"md5\"",
                    "invalid authentication algorithm configuration"},
          TaskFault{auth + "key-string", "",
                    "no control phase authentication key string configuration"},
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
  const JsonDocument task =
      Edited(ValidTask(), {{"control-phase.authentication",
                            R"({"mode":"keychain","algorithm":"sha256","key-id":99})"}});
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
  const JsonDocument task =
      Edited(ValidTask(), {{"control-phase.src-address", ""}, {"sla-type", ""}});
  const TaskCheck check = CheckTask(task.get(), {}, nullptr, lookup.Function());
  EXPECT_TRUE(check.abandoned);
  EXPECT_THAT(check.faults, IsEmpty());
}

TEST(ConfiguredInterfaceTest, TakesTheNameWithoutLookingItUp) {
  std::int32_t status = -1;
  const InterfaceAddress found = ConfiguredInterface("no such vrf", "no such interface", &status);
  EXPECT_EQ(status, kInterfaceFound);
  EXPECT_EQ(found.name, "no such interface");
  EXPECT_EQ(found.index, 0U);
}

TEST(ConfiguredInterfaceTest, RefusesWhatNamesNoInterface) {
  std::int32_t status = -1;
  static_cast<void>(ConfiguredInterface("", "", &status));
  EXPECT_EQ(status, kInterfaceNotConfigured);
}

}  // namespace
}  // namespace ipsla
