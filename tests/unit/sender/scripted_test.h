// A test whose runs are scripted, for what all tests have in common.

#ifndef IPSLA_TESTS_UNIT_SENDER_SCRIPTED_TEST_H_
#define IPSLA_TESTS_UNIT_SENDER_SCRIPTED_TEST_H_

#include <atomic>
#include <functional>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <gtest/gtest.h>

#include "env/time_values.h"
#include "sender/sender.h"
#include "support/recording_syslog.h"
#include "support/test_context.h"

namespace ipsla::test {

/// A test without sockets: a run does what `script` says, and ends when the script or the timer
/// ends it.
class ScriptedTest final : public Sender {
 public:
  ScriptedTest(boost::asio::io_context& worker, const SlaTaskConfig& task,
               const SenderContext& context)
      : Sender(worker, task, context, kCalls) {}

  /// What a run does once it has begun; called with the test's lock held.
  std::function<void(ScriptedTest&)> script = [](ScriptedTest&) {};
  /// Called when the metrics of a run are computed, without the lock.
  std::function<void()> computing = [] {};
  std::atomic<int> starts = 0;
  std::atomic<int> closes = 0;
  std::atomic<int> sends = 0;  // of the pacer
  bool close_fails = false;

  using Sender::CalcMetric;
  using Sender::FailRun;
  using Sender::FailStart;
  using Sender::kNewStart;
  using Sender::kTestStop;
  using Sender::metrics_;
  using Sender::mutex_;
  using Sender::PaceNow;
  using Sender::ring_;
  using Sender::run_;
  using Sender::StartFuncTimeout;

  [[nodiscard]] SlaTaskConfig Config() {
    const Lock lock(*this);
    return config_;
  }

  void ArmTestStop(std::uint32_t milliseconds) { StartFuncTimeout(kTestStop, milliseconds); }

  /// One probe sent.
  void SendOne() { ring_.OpenNext(RealTimeNow()); }

  /// One probe sent and answered, which does not end the run.
  void AnswerOne() {
    SendOne();
    ring_.Accept(ring_.FindSent(ring_.Sent()));
  }

 private:
  static const ProbeCalls kCalls;

  void StartTest() override {
    ++starts;
    BeginRun();
    script(*this);
  }
  void CalcTestMetric() override {
    metrics_.rtt_avg = static_cast<double>(starts);
    computing();
  }
  [[nodiscard]] SlaTaskMetrics GetMetrics(const std::list<SlaTaskMetrics>&) const override {
    return metrics_;
  }
  void CloseSockets() override {
    ++closes;
    if (close_fails) throw std::runtime_error("close: scripted");
  }
};

inline const Sender::ProbeCalls ScriptedTest::kCalls{
    .send =
        [](Sender& test) {
          ++static_cast<ScriptedTest&>(test).sends;
          return SendOutcome::kFailed;
        },
    .take = [](Sender&, const StampedDatagram&) { return false; }};

/// A context with one such test.
class SenderTest : public testing::Test {
 protected:
  SenderTest() { TakeSyslog(); }

  boost::shared_ptr<ScriptedTest> Make(const SlaTaskConfig& config) {
    return boost::make_shared<ScriptedTest>(context.worker, config, context.Shared());
  }

  /// The delays that were armed for the next run since the last call, as logged.
  static std::vector<std::string> ArmedStarts() {
    std::vector<std::string> starts;
    for (const std::string& text : TakeSyslogTexts()) {
      if (text.starts_with("func 'NewStart'")) starts.push_back(text);
    }
    return starts;
  }

  TestContext context;
  const SlaTaskConfig task = LoopbackTask(7, SlaTestType::kIcmpEcho);
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SENDER_SCRIPTED_TEST_H_
