// The life of a test, driven through a concrete test whose runs are scripted.

#include "sender/sender.h"

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
#include "support/recording_syslog.h"
#include "support/test_context.h"

namespace ipsla {
namespace {

using test::LoopbackTask;
using test::TestContext;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// A test without sockets: a run does what `script` says, and ends when the script or the timer ends
// it.
class ScriptedTest final : public Sender {
 public:
  ScriptedTest(boost::asio::io_context& worker, const SlaTaskConfig& task,
               const SenderContext& context)
      : Sender(worker, task, context) {}

  // What a run does once it has begun; called with the test's lock held.
  std::function<void(ScriptedTest&)> script = [](ScriptedTest&) {};
  std::atomic<int> starts = 0;
  std::atomic<int> closes = 0;
  bool close_fails = false;

  using Sender::AcceptReply;
  using Sender::CalcMetric;
  using Sender::EndByTimeout;
  using Sender::FailRun;
  using Sender::FailStart;
  using Sender::FindSent;
  using Sender::kNewStart;
  using Sender::metrics_;
  using Sender::mutex_;
  using Sender::OpenRecord;
  using Sender::PacedSend;
  using Sender::packets_;
  using Sender::packets_received_;
  using Sender::packets_sent_;
  using Sender::run_;
  using Sender::StartFuncTimeout;

  [[nodiscard]] SlaTaskConfig Config() const {
    const std::lock_guard lock(mutex_);
    return config_;
  }

  void ArmTestStop(std::uint32_t milliseconds) { StartFuncTimeout(kTestStop, milliseconds); }

  // One probe sent and answered.
  void Answer(std::uint32_t sequence) {
    OpenRecord(sequence, RealTimeNow());
    ++packets_sent_;
    AcceptReply(FindSent(sequence));
  }

 private:
  static const TimerHandler kTestStop;

  void StartTest() override {
    ++starts;
    BeginRun();
    script(*this);
  }
  void CalcTestMetric() override { metrics_.rtt_avg = static_cast<double>(starts); }
  [[nodiscard]] SlaTaskMetrics GetMetrics(const std::list<SlaTaskMetrics>&) const override {
    return metrics_;
  }
  void CloseSockets() override {
    ++closes;
    if (close_fails) throw std::runtime_error("close: scripted");
  }
};

const Sender::TimerHandler ScriptedTest::kTestStop{
    "TestStop", [](Sender& test) { static_cast<ScriptedTest&>(test).EndByTimeout(); }};

class SenderTest : public testing::Test {
 protected:
  SenderTest() { test::TakeSyslog(); }

  boost::shared_ptr<ScriptedTest> Make(const SlaTaskConfig& config) {
    return boost::make_shared<ScriptedTest>(context.worker, config, context.Shared());
  }

  // The delays that were armed for the next run since the last call, as logged.
  static std::vector<std::string> ArmedStarts() {
    std::vector<std::string> starts;
    for (const std::string& text : test::TakeSyslogTexts()) {
      if (text.starts_with("func 'NewStart'")) starts.push_back(text);
    }
    return starts;
  }

  TestContext context;
  const SlaTaskConfig task = LoopbackTask(7, SlaTestType::kIcmpEcho);
};

TEST_F(SenderTest, StartNowBeginsAfterZeroMilliseconds) {
  const auto test = Make(task);
  test->Schedule();
  EXPECT_THAT(ArmedStarts(), ElementsAre("func 'NewStart' timeout 0 ms"));
  EXPECT_TRUE(context.RunUntil([&] { return test->starts == 1; }));
}

TEST_F(SenderTest, NextRunIsMeasuredFromTheStartOfTheLast) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) {
    self.Answer(1);
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
    self.Answer(1);
    self.metrics_.start_time -= 11;
    self.CalcMetric();
  };
  test->Schedule();
  ArmedStarts();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 1; }));
  EXPECT_THAT(ArmedStarts(), Each(testing::AnyOf("func 'NewStart' timeout -1000 ms",
                                                 "func 'NewStart' timeout -2000 ms")));
}

TEST_F(SenderTest, NegativeLifeTimeNeverStarts) {
  SlaTaskConfig never = task;
  never.scheduler.life_time = "-1";
  const auto test = Make(never);
  test->Schedule();
  EXPECT_TRUE(ArmedStarts().empty());
  // Neither a clock change nor an address change starts it.
  test->UpdateLocalAddress("1", 1, 0, 0);
  context.RunReady();
  EXPECT_EQ(test->starts, 0);
  EXPECT_EQ(context.RunsOf(7), 0U);
}

TEST_F(SenderTest, ZeroLifeTimeFindsTheTestStoppedAtItsFirstStart) {
  SlaTaskConfig zero = task;
  zero.scheduler.life_time = "0";
  const auto test = Make(zero);
  test->Schedule();
  EXPECT_TRUE(context.RunUntil([&] { return test->IsStopped(); }));
  context.RunReady();
  EXPECT_EQ(test->starts, 0);
}

TEST_F(SenderTest, BadStartTimeIsRaised) {
  SlaTaskConfig bad = task;
  bad.scheduler.start_time = "tomorrow";
  const auto test = Make(bad);
  try {
    test->Schedule();
    FAIL() << "nothing was raised";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Cannot parse time string: tomorrow");
  }
}

TEST_F(SenderTest, RunWithoutRepliesIsStoredAsTimeoutAndRepeatsAfterThePeriod) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) {
    self.OpenRecord(1, RealTimeNow());
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

TEST_F(SenderTest, RunThatFailedToStartRepeatsAfterRetry) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) { self.FailStart("open: scripted"); };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 1; }));
  EXPECT_EQ(context.StatisticsOf(7).last.error_description, "Start test failed");
  EXPECT_THAT(ArmedStarts(),
              ElementsAre("func 'NewStart' timeout 0 ms", "func 'NewStart' timeout 3000 ms"));
}

TEST_F(SenderTest, FiveFailedStartsAreLoggedOnce) {
  SlaTaskConfig eager = task;
  eager.sla_id = 71;
  eager.control_retry = 0;
  const auto test = Make(eager);
  AddErrorLimits(71);
  test->script = [](ScriptedTest& self) { self.FailStart("open: scripted"); };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(71) >= 5; }));
  test->Stop(true);
  int errors = 0;
  for (const test::SyslogRecord& record : test::TakeSyslog()) {
    if (record.severity == 3) {
      ++errors;
      EXPECT_EQ(record.line, "%IP_SLA-E-ERROR: (test 71) open: scripted");
    }
  }
  EXPECT_EQ(errors, 1);
  RemoveErrorLimits(71);
}

TEST_F(SenderTest, MissingSourceStoresAFailedRunAndRepeatsAfterThePeriod) {
  context.interfaces->Erase(boost::asio::ip::address_v4::loopback(), "1", 1);
  const auto test = Make(task);
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 1; }));
  EXPECT_EQ(test->starts, 0);
  EXPECT_EQ(context.StatisticsOf(7).last.error_description,
            "source address or interface not exist");
  EXPECT_THAT(ArmedStarts(), Contains(HasSubstr("timeout 10000 ms")));
}

TEST_F(SenderTest, SourceOnAnInterfaceThatIsNotRunningIsMissing) {
  context.interfaces->SetFlags("1", 1, IFF_UP);
  const auto test = Make(task);
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 1; }));
  EXPECT_EQ(context.StatisticsOf(7).last.error_description,
            "source address or interface not exist");
}

TEST_F(SenderTest, MissingSourceCarriesNothingOfAnEarlierRun) {
  SlaTaskConfig eager = task;
  eager.scheduler.time = 0;
  const auto test = Make(eager);
  test->script = [this](ScriptedTest& self) {
    self.Answer(1);
    context.interfaces->Erase(boost::asio::ip::address_v4::loopback(), "1", 1);
    self.CalcMetric();
  };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.StatisticsOf(7).failed_count >= 1; }));
  test->Stop(true);
  const SlaTaskMetrics last = context.StatisticsOf(7).last;
  EXPECT_EQ(last.status, RunResult::kFail);
  EXPECT_EQ(last.ds_pkt_count, 0);
  EXPECT_EQ(last.rtt_avg, 0);
  EXPECT_EQ(test->packets_received_, 0U);
}

TEST_F(SenderTest, SourceMayAppearInATestsOwnVrfOnly) {
  SlaTaskConfig in_vrf = task;
  in_vrf.measurement.vrf = "red";
  const auto test = Make(in_vrf);
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) == 1; }));
  EXPECT_EQ(context.StatisticsOf(7).last.error_description,
            "source address or interface not exist");
}

TEST_F(SenderTest, HistoryKeepsTheNewestRuns) {
  SlaTaskConfig eager = task;
  eager.scheduler.time = 0;
  eager.num_rep_hist = 3;
  const auto test = Make(eager);
  test->script = [](ScriptedTest& self) {
    self.Answer(1);
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
    self.Answer(1);
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
    EXPECT_EQ(self.packets_sent_, 0U);
    EXPECT_EQ(self.packets_received_, 0U);
    for (const SlaPacketRecord& record : self.packets_) sequences.push_back(record.ss);
    EXPECT_EQ(self.FindSent(1), nullptr) << "a late reply of an earlier run finds no probe";
    self.Answer(1);
    self.CalcMetric();
  };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return context.RunsOf(7) >= 3; }));
  test->Stop(true);
  EXPECT_THAT(sequences, Each(0U));
}

TEST_F(SenderTest, StoppedTestStoresNothingMore) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) { self.ArmTestStop(1); };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return test->starts == 1; }));
  test->Stop(true);
  EXPECT_TRUE(test->IsStopped());
  EXPECT_GE(test->closes, 1);
  EXPECT_FALSE(
      context.RunUntil([&] { return context.RunsOf(7) > 0; }, std::chrono::milliseconds(50)));
}

TEST_F(SenderTest, WaitThatExpiredBeforeItWasReplacedDoesNothing) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) { self.ArmTestStop(0); };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return test->starts == 1; }));
  // The time-out has expired, its handler may be queued; the restart must win.
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  test->Restart();
  EXPECT_FALSE(
      context.RunUntil([&] { return context.RunsOf(7) > 0; }, std::chrono::milliseconds(50)));
}

TEST_F(SenderTest, RestartWaitsOnePeriod) {
  const auto test = Make(task);
  test->Schedule();
  ArmedStarts();
  test->Restart();
  EXPECT_THAT(ArmedStarts(), ElementsAre("func 'NewStart' timeout 10000 ms"));
}

TEST_F(SenderTest, FailingCloseIsLoggedAndNothingIsStored) {
  const auto test = Make(task);
  test->script = [](ScriptedTest& self) {
    self.Answer(1);
    self.close_fails = true;
    self.CalcMetric();
  };
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return test->starts == 1; }));
  EXPECT_EQ(context.RunsOf(7), 0U);
  EXPECT_THAT(test::TakeSyslogTexts(), Contains("Catch exception on test 7: close: scripted."));
  test->Restart();
  EXPECT_THAT(test::TakeSyslogTexts(), Contains("Catch exception on test 7: close: scripted."));
  test->UpdateLocalAddress("1", 1, 0, 0);
  EXPECT_THAT(test::TakeSyslogTexts(), Contains("Catch exception on test 7: close: scripted."));
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
    const std::lock_guard lock(by_timeout->mutex_);
    by_timeout->Answer(1);
    by_timeout->CalcMetric();
  }
  EXPECT_EQ(context.RunsOf(7), 1U);
  EXPECT_THAT(ArmedStarts(), Contains(HasSubstr("func 'NewStart'")));
}

TEST_F(SenderTest, SourceInterfaceIsTakenFromTheTable) {
  const SlaTaskConfig config = Make(task)->Config();
  EXPECT_EQ(config.measurement.if_index, 1U);
  EXPECT_EQ(config.measurement.if_name, "lo");
  EXPECT_EQ(config.control_phase.if_index, 1U);
}

struct AddressChange {
  const char* name;
  std::uint32_t control_index, measurement_index;
  std::uint32_t control_source, measurement_source;
  std::uint32_t if_index, new_address, old_address;
  std::uint32_t control_after, measurement_after;
  bool restarted;
};

class AddressChangeTest : public testing::TestWithParam<AddressChange> {};

TEST_P(AddressChangeTest, ConcernsTheEndpointsOfThatInterface) {
  const AddressChange& change = GetParam();
  TestContext context;
  SlaTaskConfig task = LoopbackTask(8, SlaTestType::kIcmpEcho);
  task.control_phase.if_index = change.control_index;
  task.measurement.if_index = change.measurement_index;
  task.control_phase.src.sin_addr.s_addr = change.control_source;
  task.measurement.src.sin_addr.s_addr = change.measurement_source;
  const auto test = boost::make_shared<ScriptedTest>(context.worker, task, context.Shared());
  const int closes = test->closes;
  test->UpdateLocalAddress("1", change.if_index, change.new_address, change.old_address);
  const SlaTaskConfig after = test->Config();
  EXPECT_EQ(after.control_phase.src.sin_addr.s_addr, change.control_after);
  EXPECT_EQ(after.measurement.src.sin_addr.s_addr, change.measurement_after);
  EXPECT_EQ(test->closes > closes, change.restarted);
}

INSTANTIATE_TEST_SUITE_P(
    Sender, AddressChangeTest,
    testing::Values(AddressChange{"both", 5, 5, 10, 10, 5, 0, 10, 0, 0, true},
                    AddressChange{"back", 5, 5, 0, 0, 5, 10, 0, 10, 10, true},
                    AddressChange{"neither", 5, 6, 10, 10, 7, 0, 10, 10, 10, false},
                    AddressChange{"control_only", 5, 6, 10, 10, 5, 0, 10, 0, 10, true},
                    AddressChange{"measurement_only", 5, 6, 10, 10, 6, 0, 10, 10, 0, true},
                    AddressChange{"another_address_of_the_interface", 5, 5, 10, 10, 5, 0, 11, 10,
                                  10, true}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(SenderTest, UnknownInterfaceIsLearnedWithoutRestart) {
  SlaTaskConfig unknown = task;
  unknown.control_phase.if_index = std::numeric_limits<std::uint32_t>::max();
  unknown.measurement.if_index = std::numeric_limits<std::uint32_t>::max();
  const auto test = Make(unknown);
  test->UpdateLocalAddress("1", 4, unknown.measurement.src.sin_addr.s_addr, 0);
  EXPECT_EQ(test->Config().control_phase.if_index, 4U);
  EXPECT_EQ(test->Config().measurement.if_index, 4U);
  EXPECT_EQ(test->closes, 0);
}

TEST_F(SenderTest, LinkEventsMoveTheInterfaceIndex) {
  const auto test = Make(task);
  test->SetInterfaceIndex("1", 1, std::nullopt);
  EXPECT_EQ(test->Config().measurement.if_index, 0U);
  test->SetInterfaceIndex("1", 9, "eth0");
  EXPECT_EQ(test->Config().measurement.if_index, 0U);
  test->SetInterfaceIndex("1", 9, "lo");
  EXPECT_EQ(test->Config().measurement.if_index, 9U);
  EXPECT_EQ(test->Config().control_phase.if_index, 9U);
}

TEST_F(SenderTest, EventsOfAnotherVrfDoNotConcernIt) {
  const auto test = Make(task);
  const SlaTaskConfig before = test->Config();
  test->UpdateLocalAddress("red", 1, 0, before.measurement.src.sin_addr.s_addr);
  test->SetInterfaceIndex("red", 1, std::nullopt);
  test->SetInterfaceIndex("red", 9, "lo");
  EXPECT_EQ(test->Config(), before);
  EXPECT_EQ(test->closes, 0);
}

TEST_F(SenderTest, PacedSendKeepsTheIntervalAndEndsWithItsRun) {
  SlaTaskConfig paced = task;
  paced.interval = 60000;
  const auto test = Make(paced);
  test->script = [](ScriptedTest&) {};
  test->Schedule();
  ASSERT_TRUE(context.RunUntil([&] { return test->starts == 1; }));
  const std::uint64_t run = test->run_;
  {
    const std::lock_guard lock(test->mutex_);
    test->OpenRecord(1, RealTimeNow());
    ++test->packets_sent_;
  }
  std::atomic<bool> sent = false;
  std::thread sender([&] { test->PacedSend({}, run, 1000, [&] { sent = true; }); });
  test->Stop(true);  // long before the minute is over
  sender.join();
  EXPECT_FALSE(sent);
}

TEST_F(SenderTest, PacedSendSendsTheFirstProbeAtOnce) {
  const auto test = Make(task);
  bool sent = false;
  test->PacedSend({}, test->run_, 1000, [&] { sent = true; });
  EXPECT_TRUE(sent);
}

TEST_F(SenderTest, FailedSendWaitIsLoggedAndEndsTheSending) {
  const auto test = Make(task);
  bool sent = false;
  test->PacedSend(boost::asio::error::network_down, test->run_, 1000, [&] { sent = true; });
  EXPECT_FALSE(sent);
  EXPECT_THAT(test::TakeSyslogTexts(), Contains("SendPacket failed on test 7: Network is down"));
  test->PacedSend(boost::asio::error::operation_aborted, test->run_, 1000, [&] { sent = true; });
  EXPECT_FALSE(sent);
  EXPECT_THAT(test::TakeSyslogTexts(), Not(Contains(HasSubstr("SendPacket"))));
}

TEST_F(SenderTest, TestWithoutAnOwnerCannotBeArmed) {
  class OnStack {
   public:
    explicit OnStack(TestContext& context)
        : test(context.worker, LoopbackTask(9, SlaTestType::kIcmpEcho), context.Shared()) {}
    ScriptedTest test;
  };
  OnStack unowned(context);
  EXPECT_THROW(unowned.test.StartFuncTimeout(ScriptedTest::kNewStart, 0), boost::bad_weak_ptr);
}

// Replies, time-outs, restarts and address changes on four threads at once: each run is stored at
// most once, every run that its last reply ended is stored as successful, and nothing is stored
// after the final stop.
TEST_F(SenderTest, ConcurrentEventsStoreEachRunOnce) {
  SlaTaskConfig eager = task;
  eager.scheduler.time = 0;
  const auto test = Make(eager);
  std::atomic<std::uint32_t> answered = 0;
  test->script = [&](ScriptedTest& self) {
    self.ArmTestStop(1);
    boost::asio::post(context.worker, [&self, &answered, test, run = self.run_.load()] {
      const std::lock_guard lock(self.mutex_);
      if (run != self.run_) return;
      self.Answer(1);
      ++answered;
      self.CalcMetric();
    });
  };
  auto work = boost::asio::make_work_guard(context.worker);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&] { context.worker.run(); });
  test->Schedule();
  std::atomic<bool> done = false;
  std::thread service([&] {
    while (!done) {
      test->Restart();
      test->UpdateLocalAddress("1", 1, 0, 0xFFFFFFFF);
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (context.RunsOf(7) < 300 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  done = true;
  service.join();
  test->Stop(true);
  const SlaTaskStatistics stored = context.StatisticsOf(7);
  EXPECT_GE(stored.successful_count, 1U);
  EXPECT_EQ(stored.successful_count, answered);
  EXPECT_LE(stored.successful_count + stored.failed_count,
            static_cast<std::uint32_t>(test->starts));
  work.reset();
  context.worker.stop();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(context.RunsOf(7), stored.successful_count + stored.failed_count);
  test->script = {};
}

}  // namespace
}  // namespace ipsla
