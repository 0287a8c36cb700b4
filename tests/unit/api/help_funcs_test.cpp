// The wall-clock watcher. No test sets the clock: what the descriptor would say is injected.

#include "api/help_funcs.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/log.h"
#include "sender/sender.h"
#include "support/recording_syslog.h"
#include "support/test_context.h"

namespace ipsla {
namespace {

using test::LoopbackTask;
using test::TestContext;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// Writes down its id whenever it is stopped, as a restart begins.
class StoppableTest final : public Sender {
 public:
  StoppableTest(TestContext& context, const SlaTaskConfig& task, std::vector<int>* stops)
      : Sender(context.worker, task, context.Shared(), kCalls), stops_(stops) {}

 private:
  static constexpr ProbeCalls kCalls{.send = [](Sender&) { return SendOutcome::kFailed; },
                                     .take = [](Sender&, const StampedDatagram&) { return false; }};

  void StartTest() override {}
  void CalcTestMetric() override {}
  [[nodiscard]] SlaTaskMetrics GetMetrics(const std::list<SlaTaskMetrics>&) const override {
    return {};
  }
  void CloseSockets() override { stops_->push_back(GetId()); }

  std::vector<int>* stops_;
};

class TimeChangedTest : public testing::Test {
 protected:
  TimeChangedTest() {
    // An event counter in the place of the timer: readable when the test says so.
    descriptor = eventfd(0, 0);
    watch->descriptor.assign(descriptor);
    watch->kick = [this](boost::asio::io_context& kicked) {
      EXPECT_EQ(&kicked, &service);
      ++kicks;
    };
    watch->read = [this](int fd, void* buffer, std::size_t size) -> ssize_t {
      sizes_read.push_back(size);
      const ssize_t result = read(fd, buffer, size);
      if (failure == 0) return result;
      errno = failure;
      return -1;
    };
    test::TakeSyslog();
  }

  ~TimeChangedTest() override { CloseClockWatch(*watch); }

  TimeChangedTest(const TimeChangedTest&) = delete;
  TimeChangedTest& operator=(const TimeChangedTest&) = delete;

  void AddTests(const std::vector<std::uint16_t>& ids) {
    for (const std::uint16_t id : ids) {
      tests[id] = boost::make_shared<StoppableTest>(
          context, LoopbackTask(id, SlaTestType::kIcmpEcho), &stops);
    }
    test::TakeSyslog();
  }

  void Signal(std::uint64_t count = 1) const {
    ASSERT_EQ(write(descriptor, &count, sizeof count), static_cast<ssize_t>(sizeof count));
  }

  // Signals once and runs until the watcher has read.
  void SignalAndRun(std::uint64_t count = 1) {
    const std::size_t before = sizes_read.size();
    Signal(count);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (sizes_read.size() == before && std::chrono::steady_clock::now() < deadline) {
      service.restart();
      service.run_one_for(std::chrono::milliseconds(20));
    }
    ASSERT_EQ(sizes_read.size(), before + 1);
  }

  TestContext context;
  boost::asio::io_context service;
  TestMap tests;
  std::shared_ptr<ClockWatch> watch = std::make_shared<ClockWatch>(service, tests);
  int descriptor = -1;
  int failure = 0;  // what reading fails with; 0: not at all
  int kicks = 0;
  std::vector<int> stops;
  std::vector<std::size_t> sizes_read;
};

TEST_F(TimeChangedTest, ClockChangeRestartsEveryTestOnceInAscendingOrder) {
  AddTests({9, 2, 40000, 5});
  failure = ECANCELED;
  WaitForClockChange(watch);
  SignalAndRun();
  EXPECT_THAT(stops, ElementsAre(2, 5, 9, 40000));
  EXPECT_EQ(kicks, 1);
  const auto texts = test::TakeSyslogTexts();
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "Time changed... Restart tests..."), 1);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "func 'NewStart' timeout 10000 ms"), 4);
  SignalAndRun();  // it waits again
  EXPECT_EQ(stops.size(), 8U);
}

TEST_F(TimeChangedTest, WithoutTestsAClockChangeIsOnlyLogged) {
  failure = ECANCELED;
  WaitForClockChange(watch);
  SignalAndRun();
  EXPECT_THAT(test::TakeSyslogTexts(), ElementsAre("Time changed... Restart tests..."));
}

TEST_F(TimeChangedTest, LogLineNamesFunctionAndSource) {
  failure = ECANCELED;
  WaitForClockChange(watch);
  SignalAndRun();
  const auto records = test::TakeSyslog();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_THAT(
      records[0].line,
      testing::MatchesRegex("%IP_SLA-D-DEBUG: help_funcs.cpp:[0-9]+:TimeChanged\\(\\): Time .*"));
}

TEST_F(TimeChangedTest, ExpiryIsReadAsEightBytesAndLogged) {
  AddTests({3});
  WaitForClockChange(watch);
  SignalAndRun(18446744073709551614U);
  EXPECT_THAT(test::TakeSyslogTexts(), ElementsAre("Timer expires 18446744073709551614 times!"));
  EXPECT_THAT(sizes_read, ElementsAre(8U));
  EXPECT_THAT(stops, IsEmpty());
  EXPECT_EQ(kicks, 1);
  SignalAndRun();
}

TEST_F(TimeChangedTest, OtherReadErrorIsLoggedAndTheWatchGoesOn) {
  AddTests({3});
  failure = EIO;
  WaitForClockChange(watch);
  SignalAndRun();
  EXPECT_THAT(test::TakeSyslogTexts(), ElementsAre("Read from timerfd failed: Input/output error"));
  EXPECT_THAT(stops, IsEmpty());
  failure = ECANCELED;
  SignalAndRun();
  EXPECT_THAT(stops, ElementsAre(3));
}

TEST_F(TimeChangedTest, ReadErrorThatStaysDoesNotSpin) {
  watch->read = [this](int, void*, std::size_t size) -> ssize_t {
    sizes_read.push_back(size);
    errno = EIO;  // and the descriptor stays readable
    return -1;
  };
  WaitForClockChange(watch);
  Signal();
  service.run_for(std::chrono::milliseconds(300));
  EXPECT_GE(sizes_read.size(), 1U);
  EXPECT_LE(sizes_read.size(), 2U);
}

TEST_F(TimeChangedTest, FailedWaitNeitherReadsNorSpins) {
  TimeChanged(boost::asio::error::bad_descriptor, watch);
  EXPECT_THAT(sizes_read, IsEmpty());
  EXPECT_EQ(kicks, 0);
  failure = ECANCELED;
  SignalAndRun();  // waits again after a pause
  EXPECT_EQ(kicks, 1);
}

TEST_F(TimeChangedTest, CancelledWaitEndsTheWatch) {
  TimeChanged(boost::asio::error::operation_aborted, watch);
  Signal();
  EXPECT_EQ(service.run_for(std::chrono::milliseconds(50)), 0U) << "no handler may be pending";
  EXPECT_THAT(sizes_read, IsEmpty());
}

TEST_F(TimeChangedTest, HandlerQueuedWhenTheWatchIsClosedTouchesNothing) {
  WaitForClockChange(watch);
  Signal();
  CloseClockWatch(*watch);
  service.run_for(std::chrono::milliseconds(50));
  TimeChanged({}, watch);
  EXPECT_THAT(sizes_read, IsEmpty());
  EXPECT_EQ(kicks, 0);
}

TEST(ClockDescriptorTest, IsATimerThatNeverExpires) {
  const Descriptor timer = CreateClockDescriptor();
  ASSERT_TRUE(timer);
  ASSERT_EQ(fcntl(timer.Get(), F_SETFL, O_NONBLOCK), 0);
  std::uint64_t count = 0;
  EXPECT_EQ(read(timer.Get(), &count, sizeof count), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(ClockDescriptorTest, FailureNamesTheStep) {
  // Every number taken: no descriptor is left for the timer.
  std::vector<int> fillers;
  for (int fd = open("/dev/null", O_RDONLY); fd >= 0; fd = open("/dev/null", O_RDONLY)) {
    fillers.push_back(fd);
  }
  std::string what;
  try {
    static_cast<void>(CreateClockDescriptor());
  } catch (const std::runtime_error& error) {
    what = error.what();
  }
  for (const int fd : fillers) close(fd);
  EXPECT_EQ(what, "Create timer fd failed");
}

}  // namespace
}  // namespace ipsla
