#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/check.h"
#include "ctl/route_source.h"
#include "ctl/template.h"

namespace ipsla::ctl {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr timespec kTemplatedAt{.tv_sec = 1700000000, .tv_nsec = 0};

/// What check says about a tasks file.
std::vector<std::string> Said(const std::string& text, const KeychainStorage* keys = nullptr) {
  const FileReport report = CheckTasks("t", {.text = text}, keys, {.now = kTemplatedAt});
  EXPECT_EQ(report.elements, 1U);
  return FindingLines(report, "task");
}

TaskTemplate Template(SlaTestType type) {
  return {.type = type, .source = "192.0.2.1", .destination = "192.0.2.2"};
}

TEST(Template, MakesTasksThatWorkOfEveryType) {
  for (const SlaTestType type : {SlaTestType::kUdpEcho, SlaTestType::kUdpJitter,
                                 SlaTestType::kIcmpEcho, SlaTestType::kIcmpJitter}) {
    EXPECT_THAT(Said(TasksFileText(Template(type))), IsEmpty()) << TestTypeToString(type);
  }
  EXPECT_THAT(Said(TasksFileText(Template(SlaTestType::kUdpJitterNtp))),
              testing::ElementsAre(HasSubstr("figures that mean nothing")));
}

TEST(Template, TakesWhatIsGiven) {
  TaskTemplate task = Template(SlaTestType::kUdpEcho);
  task.vrf = "a \"b\"";
  task.control_port = 65535;
  task.key_id = 7;
  task.interval_ms = 50;
  task.packets = 3;
  task.period_s = 20;
  const std::string text = TasksFileText(task);
  for (const char* part :
       {R"("vrf-instance": "a \"b\"")", R"("dst-port": 65535)", R"("dst-port": 65534)",
        R"("mode": "keychain", "algorithm": "hmac-sha256", "key-id": 7)", R"("interval": 50)",
        R"("num-packets": 3)", R"("time": 20)", R"("src-address": "192.0.2.1")",
        R"("dst-address": "192.0.2.2")"}) {
    EXPECT_THAT(text, HasSubstr(part));
  }
  const KeychainStorage keys{{7, "k"}};
  EXPECT_THAT(Said(text, &keys), IsEmpty());
}

TEST(Template, ChoosesAPeriodThatTheLongestRunFits) {
  TaskTemplate task = Template(SlaTestType::kUdpJitter);
  task.packets = 10000;
  task.interval_ms = 100;
  // 2000 + 1000 + 10000 x 107 = 1073000 ms
  EXPECT_THAT(TasksFileText(task), HasSubstr("\"time\": 1074"));
  EXPECT_THAT(Said(TasksFileText(task)), IsEmpty());
}

TEST(Template, MakesAKeychain) {
  KeychainStorage keys;
  const FileReport report =
      CheckKeychain("k", {.text = KeychainFileText(200, "a \"key\"")}, nullptr, &keys);
  EXPECT_THAT(FindingLines(report, "key"), IsEmpty());
  EXPECT_EQ(keys, (KeychainStorage{{200, "a \"key\""}}));
}

TEST(RouteSource, NeedsNoRouteWhenBothEndsAreGiven) {
  const RouteEnds ends = FindRoute("192.0.2.2", "192.0.2.1", "no-such-vrf");
  EXPECT_EQ(ends.source, "192.0.2.1");
  EXPECT_EQ(ends.destination, "192.0.2.2");
  EXPECT_EQ(ends.fault, "");
  EXPECT_EQ(FindRoute("192.0.2.2", "192.0.2", "").fault, "192.0.2 is no IPv4 address");
}

TEST(RouteSource, SaysWhyThereIsNone) {
  EXPECT_EQ(FindRoute("192.0.2.2", "", "no-such-vrf").fault,
            "/var/run/netns/no-such-vrf: No such file or directory");
}

}  // namespace
}  // namespace ipsla::ctl
