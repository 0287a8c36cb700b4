#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exporter/collector.h"
#include "tools/client_fake_daemon.h"

namespace ipsla::exporter {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using test::FakeDaemon;
using ::testing::HasSubstr;

constexpr const char* kOneTask =
    R"({"tasks":[{"sla-id":3,"status":"successful","error-description":"","start-time":1700000000,)"
    R"("finish-time":1700000001,"successful-count":4,"failed-count":0,"test-type":4,)"
    R"("sd-pkt-count":5,"ds-pkt-count":5,"rtt-values":{"min":0,"avg":2,"max":3}}]})";

/// Answers a statistics request.
void AnswerOneTask(FakeDaemon& daemon, const ApiHeader& request, const std::string& /*json*/) {
  EXPECT_EQ(request.command, NumberOf(ApiCommand::kGetAllActiveTaskStatistics));
  daemon.Send(BuildJsonReply(request, kOneTask).front());
}

SnapshotPtr Ask(Collector* collector, milliseconds max_age) {
  std::promise<SnapshotPtr> promise;
  collector->Ask(max_age, [&promise](const SnapshotPtr& got) { promise.set_value(got); });
  return promise.get_future().get();
}

CollectorOptions OptionsFor(const FakeDaemon& daemon) {
  return {.api_port = daemon.port(),
          .timeout = milliseconds(20000),
          .interval = hours(1),
          .tasks_file = ""};
}

TEST(ExporterCollector, AsksTheDaemonAndKeepsTheResult) {
  FakeDaemon daemon;
  daemon.Serve(1, AnswerOneTask);
  Collector collector(OptionsFor(daemon));
  const SnapshotPtr snapshot = Ask(&collector, hours(1));
  EXPECT_TRUE(snapshot->up) << snapshot->error;
  ASSERT_EQ(snapshot->tasks.size(), 1U);
  EXPECT_EQ(snapshot->tasks.at(3).successful_count, 4);
  EXPECT_THAT(*snapshot->document, HasSubstr(R"("tasks":[{"sla-id":3,)"));
  EXPECT_THAT(collector.HistoryOf(3, 0), HasSubstr(R"("sla-id":3)"));
}

TEST(ExporterCollector, GivesOneAnswerToAllWhoWait) {
  FakeDaemon daemon;
  std::promise<void> all_wait;
  daemon.Serve(1, [&](FakeDaemon& self, const ApiHeader& request, const std::string& json) {
    all_wait.get_future().wait();
    AnswerOneTask(self, request, json);
  });
  Collector collector(OptionsFor(daemon));
  std::vector<std::promise<SnapshotPtr>> answers(5);
  for (auto& answer : answers) {
    collector.Ask(milliseconds(0), [&answer](const SnapshotPtr& got) { answer.set_value(got); });
  }
  all_wait.set_value();
  const SnapshotPtr first = answers.front().get_future().get();
  for (std::size_t index = 1; index < answers.size(); ++index) {
    EXPECT_EQ(answers[index].get_future().get(), first);
  }
}

TEST(ExporterCollector, AsksAgainWhenTheAnswerIsTooOld) {
  FakeDaemon daemon;
  daemon.Serve(2, AnswerOneTask);
  Collector collector(OptionsFor(daemon));
  const SnapshotPtr first = Ask(&collector, hours(1));
  EXPECT_EQ(Ask(&collector, hours(1)), first);
  EXPECT_NE(Ask(&collector, milliseconds(-1)), first);
}

TEST(ExporterCollector, SaysWhyThereIsNoAnswer) {
  FakeDaemon daemon;
  CollectorOptions options = OptionsFor(daemon);
  options.timeout = milliseconds(50);
  Collector silent(options);
  const SnapshotPtr late = Ask(&silent, milliseconds(0));
  EXPECT_FALSE(late->up);
  EXPECT_THAT(late->error, HasSubstr("within 50 ms"));
  EXPECT_THAT(*late->document, HasSubstr(R"({"error":"no )"));
  daemon.Close();
  Collector nobody(options);
  EXPECT_THAT(Ask(&nobody, milliseconds(0))->error, HasSubstr("no daemon answers"));
}

// The daemon sends parts for ever: the whole question is bounded, not each silence.
TEST(ExporterCollector, BoundsTheWholeQuestion) {
  std::atomic<bool> done = false;  // outlives the daemon's thread
  FakeDaemon daemon;
  daemon.Serve(1, [&done](FakeDaemon& self, const ApiHeader& request, const std::string&) {
    const auto parts = BuildJsonReply(request, std::string(500 * kApiMaxSlice, 'x'));
    for (std::size_t number = 0; !done && number < parts.size(); ++number) {
      self.Send(parts[number]);
      std::this_thread::sleep_for(milliseconds(10));
    }
  });
  CollectorOptions options = OptionsFor(daemon);
  options.timeout = milliseconds(200);
  Collector collector(options);
  const SnapshotPtr snapshot = Ask(&collector, milliseconds(0));
  done = true;
  EXPECT_EQ(snapshot->error, "no complete reply within 200 ms");
}

TEST(ExporterCollector, EndsWhileItWaitsForTheDaemon) {
  FakeDaemon daemon;
  std::promise<void> asked;
  daemon.Serve(1,
               [&asked](FakeDaemon&, const ApiHeader&, const std::string&) { asked.set_value(); });
  const auto begin = std::chrono::steady_clock::now();
  {
    Collector collector(OptionsFor(daemon));
    asked.get_future().wait();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

}  // namespace
}  // namespace ipsla::exporter
