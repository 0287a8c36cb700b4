// The table of keys against the parser, which is the one that knows.

#include <regex>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "config/task_json.h"
#include "config/task_parser.h"
#include "ctl/known_keys.h"

namespace ipsla::ctl {
namespace {

/// Whether the parser has a fault at this key.
bool Refuses(const std::string& key, const std::string& value) {
  const JsonDocument task = test::Edited(test::ValidTask(), {{key, value}});
  const TaskCheck check = CheckTask(task.get(), {}, nullptr, ConfiguredInterface);
  return std::ranges::any_of(check.faults, [&](const auto& fault) { return fault.key == key; });
}

TEST(KnownKeys, SaysTheRangesThatTheParserHas) {
  for (const char* key : {"control-phase.dst-port", "control-phase.src-port", "udp-jitter.dst-port",
                          "udp-jitter.ttl", "udp-jitter.dscp"}) {
    const std::string text = ExpectedAt(key, SlaTestType::kUdpJitter);
    std::smatch range;
    ASSERT_TRUE(std::regex_search(text, range, std::regex("from (\\d+) to (\\d+)"))) << text;
    const int least = std::stoi(range[1]);
    const int most = std::stoi(range[2]);
    EXPECT_TRUE(Refuses(key, std::to_string(least - 1))) << key;
    EXPECT_FALSE(Refuses(key, std::to_string(least))) << key;
    EXPECT_FALSE(Refuses(key, std::to_string(most))) << key;
    EXPECT_TRUE(Refuses(key, std::to_string(most + 1))) << key;
  }
}

TEST(KnownKeys, SaysTheLowerBoundsThatTheParserHas) {
  for (const char* key :
       {"num-rep-hist", "control-phase.timeout", "control-phase.retry", "udp-jitter.num-packets",
        "udp-jitter.packet-size", "udp-jitter.interval"}) {
    const std::string text = ExpectedAt(key, SlaTestType::kUdpJitter);
    std::smatch bound;
    ASSERT_TRUE(std::regex_search(text, bound, std::regex("(?:from|at least) (\\d+)"))) << text;
    const int least = std::stoi(bound[1]);
    EXPECT_TRUE(Refuses(key, std::to_string(least - 1))) << key;
    EXPECT_FALSE(Refuses(key, std::to_string(least))) << key;
  }
}

TEST(KnownKeys, HasEveryKeyOfAValidTask) {
  const JsonDocument task = test::Json(test::ValidTask());
  const auto check = [](const cJSON* object, KeyPlace place) {
    const cJSON* member = nullptr;
    cJSON_ArrayForEach(member, object) {
      EXPECT_NE(FindKnownKey(place, member->string), nullptr) << member->string;
    }
  };
  check(task.get(), KeyPlace::kTask);
  const cJSON* control = cJSON_GetObjectItem(task.get(), "control-phase");
  check(cJSON_GetObjectItem(task.get(), "scheduler"), KeyPlace::kScheduler);
  check(control, KeyPlace::kControlPhase);
  check(cJSON_GetObjectItem(control, "authentication"), KeyPlace::kAuthentication);
  check(cJSON_GetObjectItem(task.get(), "udp-jitter"), KeyPlace::kMeasurement);
}

TEST(KnownKeys, AreFoundWithoutCase) {
  ASSERT_NE(FindKnownKey(KeyPlace::kScheduler, "start-TIME"), nullptr);
  EXPECT_EQ(FindKnownKey(KeyPlace::kScheduler, "start-TIME")->name, "Start-time");
  EXPECT_EQ(FindKnownKey(KeyPlace::kScheduler, "start"), nullptr);
  EXPECT_EQ(FindKnownKey(KeyPlace::kTask, "ttl"), nullptr);
}

}  // namespace
}  // namespace ipsla::ctl
