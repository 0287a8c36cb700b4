// What reaches a test from outside its runs: stops, restarts, addresses and links.

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

using testing::ElementsAre;

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
      const MutexLock lock(self.mutex_);
      if (run != self.run_) return;
      self.AnswerOne();
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
  while (context.RunsOf(7) < 300 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  done = true;
  service.join();
  test->Stop(true);
  const SlaTaskStatistics stored = context.StatisticsOf(7);
  EXPECT_GE(stored.successful_count, 1U);
  // The stop may have met one run between its end and its report.
  EXPECT_LE(stored.successful_count, answered);
  EXPECT_GE(stored.successful_count + 1, answered);
  EXPECT_LE(stored.successful_count + stored.failed_count,
            static_cast<std::uint32_t>(test->starts));
  work.reset();
  context.worker.stop();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(context.RunsOf(7), stored.successful_count + stored.failed_count);
  test->script = {};
}

}  // namespace
}  // namespace ipsla::test
