// How a run ends, what is stored of it and when the next one begins.

#include <net/if.h>

#include <atomic>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/post.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "env/time_values.h"
#include "log/error_limiter.h"
#include "log/log.h"
#include "sender/scripted_test.h"
#include "sender/sender.h"
#include "support/recording_syslog.h"
#include "support/test_context.h"

namespace ipsla::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(SenderTest, NextRunIsMeasuredFromTheStartOfTheLast) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) {
    self.AnswerOne();
    self.metrics_.start_time -= 4;  // as if the run had lasted 4 seconds
    self.CalcMetric();
  };
  test->Schedule();
  ArmedStarts();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 1; }));
  const auto armed = ArmedStarts();
  ASSERT_EQ(armed.size(), 1U);
  // 10 s less the 4 s (one less when the second changed meanwhile).
  EXPECT_TRUE(armed[0] == "func 'NewStart' timeout 6000 ms" ||
              armed[0] == "func 'NewStart' timeout 5000 ms");
}

TEST_F(SenderTest, RunLongerThanThePeriodWrapsToALongWait) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) {
    self.AnswerOne();
    self.metrics_.start_time -= 11;
    self.CalcMetric();
  };
  test->Schedule();
  ArmedStarts();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 1; }));
  EXPECT_THAT(ArmedStarts(), Each(testing::AnyOf("func 'NewStart' timeout -1000 ms",
                                                 "func 'NewStart' timeout -2000 ms")));
}

TEST_F(SenderTest, RunWithoutRepliesIsStoredAsTimeoutAndRepeatsAfterThePeriod) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) {
    self.SendOne();
    self.metrics_.sd_pkt_count = 1;
    self.ArmTestStop(1);
  };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 1; }));
  const SlaTaskStatistics stored = context.StatisticsOf(7);
  EXPECT_EQ(stored.failed_count, 1U);
  EXPECT_EQ(stored.last.status, RunResult::kFail);
  EXPECT_EQ(stored.last.error_description, "timeout, no samples");
  EXPECT_EQ(stored.last.sd_pkt_count, 0) << "counters of a failed run are cleared";
  EXPECT_GT(stored.last.start_time, 0) << "its times are kept";
  EXPECT_GE(stored.last.finish_time, stored.last.start_time);
  const auto armed = ArmedStarts();
  ASSERT_EQ(armed.size(), 2U);
  EXPECT_TRUE(armed[1] == "func 'NewStart' timeout 10000 ms" ||
              armed[1] == "func 'NewStart' timeout 9000 ms");
}

TEST_F(SenderTest, HistoryKeepsTheNewestRuns) {
  SlaTaskConfig eager = task;
  eager.scheduler.time = 0;
  eager.num_rep_hist = 3;
  const auto test = Make(eager);
  test->script = [](ScriptedTest& self) {
    self.AnswerOne();
    self.CalcMetric();
  };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 5; }));
  test->Stop(true);
  const SlaTaskStatistics stored = context.StatisticsOf(7);
  std::vector<double> kept;
  for (const SlaTaskMetrics& metrics : stored.history) kept.push_back(metrics.rtt_avg);
  EXPECT_THAT(kept, ElementsAre(3, 4, 5));
  EXPECT_EQ(stored.last.rtt_avg, 5);
  EXPECT_EQ(stored.successful_count, 5U);
}

TEST_F(SenderTest, HistoryLengthZeroKeepsOneRun) {
  SlaTaskConfig eager = task;
  eager.scheduler.time = 0;
  eager.num_rep_hist = 0;
  const auto test = Make(eager);
  test->script = [](ScriptedTest& self) {
    self.AnswerOne();
    self.CalcMetric();
  };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 3; }));
  test->Stop(true);
  EXPECT_EQ(context.StatisticsOf(7).history.size(), 1U);
}

TEST_F(SenderTest, EveryRunBeginsLikeTheFirst) {
  SlaTaskConfig eager = task;
  eager.scheduler.time = 0;
  const auto test = Make(eager);
  std::vector<std::uint32_t> sequences;
  test->script = [&](ScriptedTest& self) {
    EXPECT_EQ(self.ring_.Sent(), 0U);
    EXPECT_EQ(self.ring_.Received(), 0U);
    for (const SlaPacketRecord& record : self.ring_.Records()) sequences.push_back(record.ss);
    EXPECT_EQ(self.ring_.FindSent(1), nullptr) << "a late reply of an earlier run finds no probe";
    self.AnswerOne();
    self.CalcMetric();
  };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) >= 3; }));
  test->Stop(true);
  EXPECT_THAT(sequences, Each(0U));
}

TEST_F(SenderTest, FailingCloseIsLoggedAndNothingIsStored) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) {
    self.AnswerOne();
    self.close_fails = true;
    self.CalcMetric();
  };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return test->starts == 1; }));
  EXPECT_EQ(context.RunsOf(7), 0U);
  EXPECT_THAT(TakeSyslogTexts(), Contains("Catch exception on test 7: close: scripted."));
  test->Restart();
  EXPECT_THAT(TakeSyslogTexts(), Contains("Catch exception on test 7: close: scripted."));
  test->UpdateLocalAddress("1", 1, 0, 0);
  EXPECT_THAT(TakeSyslogTexts(), Contains("Catch exception on test 7: close: scripted."));
}

TEST_F(SenderTest, LifeThatEndsDuringARunStoresItOnlyByItsLastReply) {
  SlaTaskConfig brief = task;
  brief.scheduler.life_time = "1";
  const auto by_timeout = Make(brief);
  by_timeout->script = [](ScriptedTest& self) { self.ArmTestStop(1200); };
  by_timeout->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return by_timeout->starts == 1 && by_timeout->IsStopped(); }));
  EXPECT_FALSE(
      context.RunUntil([&] { return context.RunsOf(7) > 0; }, std::chrono::milliseconds(400)));
  {
    const MutexLock lock(by_timeout->mutex_);
    by_timeout->AnswerOne();
    by_timeout->CalcMetric();
  }
  EXPECT_EQ(context.RunsOf(7), 1U);
  EXPECT_THAT(ArmedStarts(), Contains(HasSubstr("func 'NewStart'")));
}

}  // namespace
}  // namespace ipsla::test
