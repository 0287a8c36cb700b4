// When a test starts and when it does not.

#include "sender/sender.h"

#include <net/if.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <optional>
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
#include "support/recording_syslog.h"
#include "support/test_context.h"

namespace ipsla::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(SenderTest, StartNowBeginsAfterZeroMilliseconds) {
  const auto test = Make(task);
  test->Schedule();
  EXPECT_THAT(ArmedStarts(), ElementsAre("func 'NewStart' timeout 0 ms"));
  EXPECT_TRUE(context.RunUntil([&] { return test->starts == 1; }));
}

TEST_F(SenderTest, AProbeThatFallsDueWhileAHandlerIsAtWorkIsSentAfterIt) {
  const auto test = Make(task);
  std::atomic<bool> passed = false;
  std::thread on_duty;
  test->script = [&](ScriptedTest& self) {
    self.PaceNow(self.run_);
    // One behind the other: when the second is served, the first was.
    context.pacer->Add(SteadyNow(), [&]() -> std::optional<SteadyTime> {
      passed = true;
      return std::nullopt;
    });
    on_duty = std::thread([&] {
      while (!passed) context.worker.run_one_for(std::chrono::milliseconds(1));
    });
    on_duty.join();
    EXPECT_EQ(self.sends, 0);
  };
  test->Schedule();
  EXPECT_TRUE(context.RunUntil([&] { return test->sends == 1; }));
  context.RunReady();
  EXPECT_EQ(test->sends, 1);
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
  for (const SyslogRecord& record : TakeSyslog()) {
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
    self.AnswerOne();
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
  EXPECT_EQ(test->ring_.Received(), 0U);
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

}  // namespace
}  // namespace ipsla::test
