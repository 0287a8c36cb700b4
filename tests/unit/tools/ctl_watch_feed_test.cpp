#include <map>
#include <optional>
#include <utility>

#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/json_text.h"
#include "ctl/watch_feed.h"
#include "support/temporary_directory.h"
#include "support/text_files.h"
#include "tools/client_fake_daemon.h"

namespace ipsla::ctl {
namespace {

using client::ClientError;
using client::TaskView;
using test::FakeDaemon;
using testing::ElementsAre;

constexpr std::int64_t kBegin = 1700000000;
constexpr std::int32_t kMany = 30;  // more than are listed at each refresh
constexpr int kEcho = 4, kJitter = 5;

/// A task of the daemon; without a result until it has run.
struct DaemonTask {
  int type = kEcho;
  std::optional<std::int64_t> start{};
};

std::string ResultText(std::int32_t id, const DaemonTask& task, const std::string& groups) {
  return R"({"sla-id":)" + std::to_string(id) + R"(,"status":"successful","test-type":)" +
         std::to_string(task.type) + R"(,"start-time":)" + std::to_string(*task.start) + groups +
         "}";
}

/// The daemon, the tasks file and the feed of a watch. `requests`: how many are to be answered in
/// all; commands are kept as one digit each, 0 results, 1 list, 2 status.
class Watch {
 public:
  explicit Watch(int requests) {
    for (std::int32_t id = 1; id <= kMany; ++id) {
      tasks[id].start = kBegin;
    }
    WriteTasksFile();
    daemon_.Serve(requests,
                  [this](FakeDaemon& self, const ApiHeader& request, const std::string& text) {
                    commands_ += std::to_string(request.command);
                    self.Send(refuses ? BuildHeaderReply(request, kApiFailure)
                                      : BuildJsonReply(request, Answer(request, text)).front());
                  });
  }

  void WriteTasksFile() const {
    std::string text;
    for (const auto& [id, task] : tasks) {
      text += (text.empty() ? "" : ",") + std::string(R"({"sla-id":)") + std::to_string(id) +
              R"(,"sla-type":")" + (task.type == kEcho ? "icmp-echo" : "icmp-jitter") +
              R"(","scheduler":{"time":3600}})";
    }
    test::WriteText(directory_ / "tasks.json", R"({"IP-SLA-tasks":[)" + text + "]}");
  }
  [[nodiscard]] TaskSource Source(client::TaskSelection selection, bool has_file = true) const {
    return {daemon_.Options(),
            {.selection = std::move(selection),
             .tasks_file = has_file ? (directory_ / "tasks.json").string() : ""}};
  }
  /// Since the last call.
  [[nodiscard]] std::string Commands() { return std::exchange(commands_, ""); }

  std::map<std::int32_t, DaemonTask> tasks;  // between two refreshes
  bool refuses = false;

 private:
  [[nodiscard]] std::string Answer(const ApiHeader& request, const std::string& text) const {
    const JsonParse parsed = ParseJson(text);
    std::string answer;
    const auto add = [&answer](const std::string& element) {
      answer += (answer.empty() ? "" : ",") + element;
    };
    if (request.command == static_cast<std::uint16_t>(ApiCommand::kGetAllActiveTaskStatistics)) {
      for (const auto& [id, task] : tasks) {
        if (task.start) add(ResultText(id, task, ""));
      }
    }
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, cJSON_GetObjectItem(parsed.document.get(), "tasks")) {
      const bool is_id = cJSON_IsNumber(element) != 0;
      const cJSON* id = is_id ? element : cJSON_GetObjectItem(element, "sla-id");
      const auto task = tasks.find(id->valueint);
      if (task == tasks.end()) continue;
      if (is_id) {
        add(R"({"sla-id":)" + std::to_string(task->first) + R"(,"status":true})");
      } else if (task->second.start) {
        std::string groups;
        const cJSON* group = nullptr;
        cJSON_ArrayForEach(group, cJSON_GetObjectItem(element, "metrics")) {
          groups += std::string(",\"") + group->valuestring + "\":{}";
        }
        add(ResultText(task->first, task->second, groups));
      }
    }
    return R"({"tasks":[)" + answer + "]}";
  }

  test::TemporaryDirectory directory_;
  std::string commands_;
  FakeDaemon daemon_;  // its thread uses the above
};

/// The task of that id; null when it is not shown.
const TaskView* Find(const std::vector<TaskView>& shown, std::int32_t id) {
  for (const TaskView& task : shown) {
    if (task.id == id) return &task;
  }
  return nullptr;
}

TEST(WatchFeed, NoticesAReloadWithinHalfAMinute) {
  Watch watch(8);
  TaskSource source = watch.Source({.all = true});
  WatchFeed feed(&source, {"rtt-values"});
  EXPECT_EQ(feed.Refresh({}, kBegin).size(), kMany);
  EXPECT_EQ(watch.Commands(), "10");

  watch.tasks.erase(2);
  watch.tasks[3].start.reset();  // started afresh
  watch.tasks[99].start = kBegin + 5;
  watch.WriteTasksFile();
  auto shown = feed.Refresh({}, kBegin + 29);
  EXPECT_EQ(watch.Commands(), "0") << "the daemon's log is spared";
  ASSERT_EQ(shown.size(), kMany);
  EXPECT_FALSE(Find(shown, 2)->last);
  EXPECT_FALSE(Find(shown, 3)->last);

  watch.tasks[3].start = kBegin + 29;
  shown = feed.Refresh({}, kBegin + 30);
  EXPECT_EQ(watch.Commands(), "20");
  ASSERT_EQ(shown.size(), kMany) << "one is gone, another has come";
  EXPECT_EQ(Find(shown, 2), nullptr);
  ASSERT_TRUE(Find(shown, 3)->last);
  EXPECT_EQ(Find(shown, 3)->last->start_time, kBegin + 29);
  ASSERT_TRUE(Find(shown, 99) != nullptr && Find(shown, 99)->last);
  EXPECT_EQ(Find(shown, 99)->plan->period_s, 3600);

  EXPECT_EQ(feed.Refresh({}, kBegin + 59).size(), kMany);
  EXPECT_EQ(watch.Commands(), "0") << "half a minute begins anew";
  EXPECT_EQ(feed.Refresh({}, kBegin + 60).size(), kMany);
}

TEST(WatchFeed, ShowsAChosenTaskThatComesOnlyLater) {
  Watch watch(8);
  std::set<std::int32_t> ids{99};
  for (std::int32_t id = 1; id < kMany; ++id) {
    ids.insert(id);
  }
  TaskSource source = watch.Source({.ids = ids});
  WatchFeed feed(&source, {});
  EXPECT_EQ(feed.Refresh({}, kBegin).size(), kMany - 1) << "99 is not configured, 30 not chosen";
  EXPECT_EQ(watch.Commands(), "200");

  watch.tasks[99].start = kBegin + 5;
  watch.tasks[100].start = kBegin + 5;
  EXPECT_EQ(feed.Refresh({}, kBegin + 29).size(), kMany - 1);
  const auto shown = feed.Refresh({}, kBegin + 30);
  EXPECT_EQ(watch.Commands(), "020");
  EXPECT_EQ(shown.size(), kMany);
  EXPECT_NE(Find(shown, 99), nullptr);
  EXPECT_EQ(feed.Refresh({}, kBegin + 400).size(), kMany);
  EXPECT_EQ(watch.Commands(), "20") << "which are chosen is known: nothing is listed";
}

TEST(WatchFeed, ListsSeldomWhereThereIsNoTasksFile) {
  Watch watch(8);
  TaskSource source = watch.Source({}, false);
  WatchFeed feed(&source, {});
  EXPECT_EQ(feed.Refresh({}, kBegin).size(), kMany);
  EXPECT_EQ(watch.Commands(), "10");

  watch.tasks.erase(2);
  watch.tasks[99].start = kBegin + 5;
  EXPECT_EQ(feed.Refresh({}, kBegin + 30).size(), kMany - 1) << "status tells of the known ones";
  EXPECT_EQ(watch.Commands(), "20");
  EXPECT_EQ(feed.Refresh({}, kBegin + 299).size(), kMany - 1);
  EXPECT_EQ(watch.Commands(), "20");
  EXPECT_EQ(feed.Refresh({}, kBegin + 300).size(), kMany);
  EXPECT_EQ(watch.Commands(), "10");
}

TEST(WatchFeed, AsksForAllValuesOfATaskThatChangedItsType) {
  Watch watch(4);
  TaskSource source = watch.Source({});
  WatchFeed feed(&source, {"rtt-values", "loss-values"});
  EXPECT_FALSE(Find(feed.Refresh({}, kBegin), 7)->last->loss);
  EXPECT_EQ(watch.Commands(), "10");

  watch.tasks[7] = {.type = kJitter, .start = kBegin + 1};
  const auto shown = feed.Refresh({}, kBegin + 2);
  EXPECT_EQ(watch.Commands(), "00");
  EXPECT_EQ(Find(shown, 7)->last->type, SlaTestType::kIcmpJitter);
  EXPECT_TRUE(Find(shown, 7)->last->rtt && Find(shown, 7)->last->loss);
}

TEST(WatchFeed, ListsAnewAfterARefreshThatFailed) {
  Watch watch(5);
  TaskSource source = watch.Source({});
  WatchFeed feed(&source, {});
  (void)feed.Refresh({}, kBegin);
  watch.refuses = true;
  EXPECT_THROW((void)feed.Refresh({}, kBegin + 30), ClientError);
  EXPECT_EQ(watch.Commands(), "102");

  watch.refuses = false;
  watch.tasks.erase(2);
  EXPECT_EQ(feed.Refresh({}, kBegin + 31).size(), kMany - 1);
  EXPECT_EQ(watch.Commands(), "10");
}

}  // namespace
}  // namespace ipsla::ctl
