#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/task_query.h"
#include "tools/client_fake_daemon.h"

namespace ipsla::client {
namespace {

using test::FakeDaemon;
using testing::ElementsAre;

/// Answers `replies` in turn and keeps what was asked, as "COMMAND TEXT".
class Conversation {
 public:
  explicit Conversation(std::vector<std::string> replies) : replies_(std::move(replies)) {
    daemon_.Serve(static_cast<int>(replies_.size()),
                  [this](FakeDaemon& self, const ApiHeader& request, const std::string& text) {
                    requests_.push_back(std::to_string(request.command) + " " + text);
                    self.Send(BuildJsonReply(request, replies_[requests_.size() - 1]).front());
                  });
  }

  TaskAnswer Query(const TaskSelection& selection, const TaskPlans& plans,
                   const std::set<std::string>& wanted) {
    return QueryTasks(SenderClient(daemon_.Options()), selection, plans, wanted);
  }
  /// After the last reply.
  [[nodiscard]] const std::vector<std::string>& Requests() const { return requests_; }

 private:
  std::vector<std::string> replies_, requests_;
  FakeDaemon daemon_;  // its thread uses the above
};

constexpr const char* kListed =
    R"({"tasks":[{"sla-id":1,"status":"successful","test-type":4},{"sla-id":2,"status":"fail","test-type":2}]})";

std::vector<std::int32_t> IdsOf(const TaskAnswer& answer) {
  std::vector<std::int32_t> ids;
  for (const TaskView& task : answer.tasks) {
    ids.push_back(task.id);
  }
  return ids;
}

TEST(TaskQuery, ListsWithoutGroupsAndAsksForThoseThatTheTypesMeasure) {
  Conversation conversation(
      {kListed,
       R"({"tasks":[{"sla-id":1,"status":"successful","test-type":4,"rtt-values":{"avg":1}},)"
       R"({"sla-id":2,"status":"successful","test-type":2}]})"});
  const TaskAnswer answer = conversation.Query({}, {}, {"rtt-values", "jitter-values"});
  EXPECT_THAT(conversation.Requests(),
              ElementsAre(R"(1 {"metrics":[]})",
                          R"(0 {"tasks":[{"sla-id":1,"metrics":["rtt-values"]},)"
                          R"({"sla-id":2,"metrics":["jitter-values","rtt-values"]}]})"));
  ASSERT_THAT(IdsOf(answer), ElementsAre(1, 2));
  EXPECT_TRUE(answer.tasks[0].last->rtt);
  EXPECT_FALSE(answer.tasks[1].Failed()) << "the later answer counts";
}

TEST(TaskQuery, AsksOnlyOnceWhenNoGroupIsWanted) {
  Conversation conversation({kListed});
  EXPECT_THAT(IdsOf(conversation.Query({}, {}, {})), ElementsAre(1, 2));
  EXPECT_THAT(conversation.Requests(), ElementsAre(R"(1 {"metrics":[]})"));
}

TEST(TaskQuery, FindsTasksThatHaveNotRunByThePlans) {
  Conversation conversation({kListed, R"({"tasks":[{"sla-id":9,"status":true}]})"});
  const TaskPlans plans{{2, {}}, {8, {}}, {9, {.type = SlaTestType::kIcmpEcho}}};
  const TaskAnswer answer = conversation.Query({.all = true}, plans, {});
  EXPECT_THAT(conversation.Requests(), ElementsAre(R"(1 {"metrics":[]})", R"(2 {"tasks":[8,9]})"));
  ASSERT_THAT(IdsOf(answer), ElementsAre(1, 2, 9)) << "8 is in the file, not in the daemon";
  EXPECT_FALSE(answer.tasks[2].last);
  EXPECT_EQ(answer.tasks[2].Type(), SlaTestType::kIcmpEcho);
  EXPECT_TRUE(answer.tasks[1].plan);
  EXPECT_FALSE(answer.tasks[0].plan);
}

TEST(TaskQuery, AsksForChosenTasksAlone) {
  Conversation conversation({R"({"tasks":[{"sla-id":1,"status":true}]})",
                             R"({"tasks":[{"sla-id":1,"status":"fail","test-type":4}]})"});
  const TaskPlans plans{{1, {.type = SlaTestType::kIcmpEcho}}};
  const TaskAnswer answer = conversation.Query({.ids = {1, 7}}, plans, MetricGroupNames());
  EXPECT_THAT(conversation.Requests(),
              ElementsAre(R"(2 {"tasks":[1,7]})",
                          R"(0 {"tasks":[{"sla-id":1,"metrics":["rtt-values"]}]})"));
  EXPECT_THAT(IdsOf(answer), ElementsAre(1));
  EXPECT_THAT(answer.unknown, ElementsAre(7));
}

TEST(TaskQuery, AsksAgainWhenThePlanNamesAnotherTypeThanTheDaemonHas) {
  Conversation conversation({R"({"tasks":[{"sla-id":1,"status":true}]})",
                             R"({"tasks":[{"sla-id":1,"status":"fail","test-type":2}]})",
                             R"({"tasks":[{"sla-id":1,"status":"successful","test-type":2}]})"});
  const TaskPlans plans{{1, {.type = SlaTestType::kIcmpEcho}}};
  const TaskAnswer answer = conversation.Query({.ids = {1}}, plans, {"jitter-values"});
  EXPECT_EQ(conversation.Requests().back(),
            R"(0 {"tasks":[{"sla-id":1,"metrics":["jitter-values"]}]})");
  EXPECT_FALSE(answer.tasks.front().Failed());
}

}  // namespace
}  // namespace ipsla::client
