#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/task_json.h"
#include "ctl/member_check.h"

namespace ipsla::ctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// "key = value: reason" of each.
std::vector<std::string> Texts(const std::vector<Remark>& remarks) {
  std::vector<std::string> texts;
  for (const Remark& remark : remarks) {
    texts.push_back(remark.fault.key +
                    (remark.fault.value.empty() ? "" : " = " + remark.fault.value) + ": " +
                    remark.fault.reason);
    EXPECT_EQ(remark.severity, Severity::kWarning);
  }
  return texts;
}

std::vector<std::string> OfTask(const std::vector<test::Edit>& edits) {
  const JsonDocument task = test::Edited(test::ValidTask(), edits);
  return Texts(TaskMemberRemarks(task.get()));
}

TEST(MemberCheck, HasNothingToSayAboutAValidTask) {
  EXPECT_THAT(OfTask({}), IsEmpty());
  EXPECT_THAT(OfTask({{"scheduler.life-time", "3600"}, {"_comment", "1"}, {"udp-jitter._x", "{}"}}),
              IsEmpty());
}

TEST(MemberCheck, NamesUnknownKeysAndWhatTheyMayMean) {
  EXPECT_THAT(OfTask({{"vrf", "\"blue\""}}),
              ElementsAre("vrf: unknown key: it is not read; did you mean \"vrf-instance\"?"));
  EXPECT_THAT(OfTask({{"scheduler.start-tme", "\"now\""}}),
              ElementsAre("scheduler.start-tme: unknown key: it is not read; did you mean "
                          "\"Start-time\"?"));
  EXPECT_THAT(OfTask({{"udp-jitter.remark", "1"}, {"control-phase.authentication.key", "\"k\""}}),
              ElementsAre("control-phase.authentication.key: unknown key: it is not read; did you "
                          "mean \"key-string\"?",
                          "udp-jitter.remark: unknown key: it is not read"));
}

TEST(MemberCheck, DoesNotLookIntoWhatIsNotRead) {
  EXPECT_THAT(OfTask({{"icmp-echo", R"({"anything": 1})"}}), IsEmpty());
}

TEST(MemberCheck, NamesKeysThatStandTwice) {
  const JsonDocument twice = test::Json(R"({"key-id": 1, "key-string": "a", "Key-Id": 2})");
  const std::vector<Remark> remarks = MemberRemarks(twice.get(), KeyPlace::kKey, "p.");
  EXPECT_THAT(Texts(remarks),
              ElementsAre("p.Key-Id: stands here again: only the first one counts"));
  EXPECT_TRUE(remarks[0].at_name);
}

TEST(MemberCheck, NamesKeysInAnotherCase) {
  const JsonDocument key = test::Json(R"({"KEY-id": 1, "key-string": "a"})");
  EXPECT_THAT(Texts(MemberRemarks(key.get(), KeyPlace::kKey)),
              ElementsAre("KEY-id: is read as \"key-id\": other readers take it for another key"));
}

TEST(MemberCheck, NamesValuesThatArePassedOver) {
  EXPECT_THAT(OfTask({{"vrf-instance", "5"},
                      {"control-phase.src-interface", "null"},
                      {"udp-jitter.src-address", "[1]"}}),
              ElementsAre("vrf-instance = 5: is no text and is not read",
                          "control-phase.src-interface = null: is no text and is not read",
                          "udp-jitter.src-address = [1]: is no text and is not read"));
}

TEST(MemberCheck, NamesNumbersThatAreCut) {
  EXPECT_THAT(OfTask({{"scheduler.time", "2.9"},
                      {"control-phase.timeout", "3000000000"},
                      {"udp-jitter.interval", "2.0"},
                      {"udp-jitter.cos", "1.5"}}),
              ElementsAre("scheduler.time = 2.9: is kept as 2",
                          "control-phase.timeout = 3000000000: is kept as 2147483647",
                          "udp-jitter.cos = 1.5: is kept as 1"));
}

TEST(MemberCheck, LeavesEditorsTheirSchemaInTheRoot) {
  const JsonDocument root = test::Json(R"({"$schema": "x", "cpus": 5, "IP-SLA-tasks": {}})");
  EXPECT_THAT(Texts(MemberRemarks(root.get(), KeyPlace::kTasksRoot)),
              ElementsAre("IP-SLA-tasks = {}: is no array and is not read"));
  EXPECT_THAT(Texts(MemberRemarks(root.get(), KeyPlace::kScheduler)), testing::SizeIs(3));
  EXPECT_THAT(MemberRemarks(nullptr, KeyPlace::kTask), IsEmpty());
}

}  // namespace
}  // namespace ipsla::ctl
