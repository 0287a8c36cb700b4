#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/task_plan.h"

namespace ipsla::client {
namespace {

TaskPlan ReadPlan(const std::string& task) {
  const auto plans = ReadTaskPlans(R"({"IP-SLA-tasks":[)" + task + "]}");
  EXPECT_TRUE(plans && plans->size() == 1) << task;
  return plans && !plans->empty() ? plans->begin()->second : TaskPlan{};
}

TEST(TaskPlan, ReadsWhatTheApiDoesNotTell) {
  const TaskPlan plan = ReadPlan(
      R"({"sla-id":3,"sla-type":"udp-jitter","vrf-instance":"blue",)"
      R"("scheduler":{"time":60,"Start-time":"now","life-time":"3600"},)"
      R"("control-phase":{"dst-address":"10.9.9.9"},)"
      R"("udp-jitter":{"src-address":"10.0.0.1","src-interface":"eth0","dst-address":"10.0.0.2","dscp":46}})");
  EXPECT_EQ(plan.type, SlaTestType::kUdpJitter);
  EXPECT_EQ(plan.vrf, "blue");
  EXPECT_EQ(plan.src_address, "10.0.0.1");
  EXPECT_EQ(plan.dst_address, "10.0.0.2");
  EXPECT_EQ(plan.interface, "") << "the address is what counts when there are both";
  EXPECT_EQ(plan.period_s, 60);
  EXPECT_EQ(plan.life_s, 3600);
  EXPECT_EQ(plan.dscp, 46);
}

TEST(TaskPlan, ReadsTheSourceInterface) {
  EXPECT_EQ(ReadPlan(R"({"sla-id":3,"sla-type":"icmp-echo","icmp-echo":{"src-interface":"eth0"}})")
                .interface,
            "eth0");
}

TEST(TaskPlan, ReadsALifeAsTheDaemonDoes) {
  const auto life = [](const std::string& value) {
    return ReadPlan(R"({"sla-id":3,"scheduler":{"life-time":)" + value + "}}").life_s;
  };
  EXPECT_EQ(life(R"("forever")"), std::nullopt);
  EXPECT_EQ(life("60"), 60);
  EXPECT_EQ(life(R"("-1")"), -1);
  EXPECT_EQ(life(R"("1h")"), 1);
  EXPECT_EQ(life(R"("soon")"), 0);
}

TEST(TaskPlan, KeepsTheFirstOfTasksWithOneId) {
  const auto plans = ReadTaskPlans(
      R"({"IP-SLA-tasks":[{"sla-id":65539,"sla-type":"icmp-echo"},{"sla-id":3},{"sla-id":"x"},5]})");
  ASSERT_TRUE(plans);
  ASSERT_EQ(plans->size(), 1U);
  EXPECT_EQ(plans->at(3).type, SlaTestType::kIcmpEcho) << "the daemon keeps 16 bits of an id";
}

TEST(TaskPlan, TakesAnythingElseAsNotGiven) {
  const TaskPlan plan = ReadPlan(R"({"sla-id":0,"sla-type":7,"scheduler":{"time":"60"}})");
  EXPECT_EQ(plan.type, SlaTestType::kNone);
  EXPECT_EQ(plan.period_s, 0);
  EXPECT_EQ(plan.life_s, std::nullopt);
}

TEST(TaskPlan, RefusesWhatIsNoTasksFile) {
  for (const char* text : {"", "nonsense", "[]", "{}", R"({"IP-SLA-tasks":{}})"}) {
    EXPECT_FALSE(ReadTaskPlans(text)) << text;
  }
}

}  // namespace
}  // namespace ipsla::client
