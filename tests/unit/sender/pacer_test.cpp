#include "sender/pacer.h"

#include <sched.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ipsla::test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::ElementsAre;

// Threads that run a context with a pacer on it.
class PacerTest : public testing::Test {
 protected:
  PacerTest() {
    for (int i = 0; i < 3; ++i) threads_.emplace_back([this] { worker.run(); });
  }
  ~PacerTest() override {
    pacer.Stop();
    work_.reset();
    for (std::thread& thread : threads_) thread.join();
  }
  PacerTest(const PacerTest&) = delete;
  PacerTest& operator=(const PacerTest&) = delete;

  template <typename Condition>
  static bool Within20Seconds(Condition condition) {
    const SteadyTime end = SteadyNow() + std::chrono::seconds(20);
    while (!condition()) {
      if (SteadyNow() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }

  boost::asio::io_context worker;
  Pacer pacer{worker};

 private:
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      worker.get_executor()};
  std::vector<std::thread> threads_;
};

TEST_F(PacerTest, SendsWhatIsDueAtOnce) {
  std::atomic<int> sent = 0;
  pacer.Add(SteadyNow(), [&]() -> std::optional<SteadyTime> {
    ++sent;
    return std::nullopt;
  });
  EXPECT_TRUE(Within20Seconds([&] { return sent == 1; }));
}

// The CPUs that this process may use.
std::vector<int> Cpus() {
  cpu_set_t allowed;
  std::vector<int> cpus;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return {0};
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) cpus.push_back(cpu);
  }
  return cpus;
}

void MoveToCpu(int cpu) {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
}

TEST(PacerDutyTest, IsOnTheCpuOfItsThreadAsLongAsThereIsAProbe) {
  boost::asio::io_context worker;
  Pacer pacer(worker);
  const std::vector<int> cpus = Cpus();
  std::thread thread([&] {
    MoveToCpu(cpus.front());
    EXPECT_FALSE(pacer.IsOnDutyHere());
    pacer.Add(SteadyNow(), [&]() -> std::optional<SteadyTime> {
      EXPECT_TRUE(pacer.IsOnDutyHere());
      MoveToCpu(cpus.back());
      EXPECT_EQ(pacer.IsOnDutyHere(), cpus.size() == 1);
      MoveToCpu(cpus.front());
      return std::nullopt;
    });
    EXPECT_TRUE(pacer.IsOnDutyHere()) << "any thread may be called";
    worker.run();
    EXPECT_FALSE(pacer.IsOnDutyHere());
  });
  thread.join();
}

TEST_F(PacerTest, SendsNothingBeforeItIsDue) {
  const SteadyTime due = SteadyNow() + milliseconds(30);
  std::atomic<bool> sent = false;
  SteadyTime at;
  pacer.Add(due, [&]() -> std::optional<SteadyTime> {
    at = SteadyNow();
    sent = true;
    return std::nullopt;
  });
  ASSERT_TRUE(Within20Seconds([&] { return sent.load(); }));
  EXPECT_GE(at, due);
}

TEST_F(PacerTest, GoesOnAsLongAsThereIsANextOne) {
  std::vector<SteadyTime> sent;
  std::atomic<bool> done = false;
  const SteadyTime first = SteadyNow();
  pacer.Add(first, [&]() -> std::optional<SteadyTime> {
    sent.push_back(SteadyNow());
    if (sent.size() < 4) return first + milliseconds(5) * sent.size();
    done = true;
    return std::nullopt;
  });
  ASSERT_TRUE(Within20Seconds([&] { return done.load(); }));
  for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_GE(sent[i], first + milliseconds(5) * i);
}

TEST_F(PacerTest, AnEarlierProbeDoesNotWaitForALaterOne) {
  pacer.Add(SteadyNow() + hours(1), [] { return std::nullopt; });
  std::atomic<bool> sent = false;
  pacer.Add(SteadyNow() + milliseconds(5), [&]() -> std::optional<SteadyTime> {
    sent = true;
    return std::nullopt;
  });
  EXPECT_TRUE(Within20Seconds([&] { return sent.load(); }));
}

TEST_F(PacerTest, SendsInTheOrderInWhichProbesAreDue) {
  std::vector<int> order;
  std::atomic<int> sent = 0;
  const SteadyTime now = SteadyNow() + milliseconds(50);
  for (const int number : {3, 1, 2}) {
    pacer.Add(now + milliseconds(number), [&, number]() -> std::optional<SteadyTime> {
      order.push_back(number);
      ++sent;
      return std::nullopt;
    });
  }
  ASSERT_TRUE(Within20Seconds([&] { return sent == 3; }));
  EXPECT_THAT(order, ElementsAre(1, 2, 3));
}

TEST_F(PacerTest, OneProbeAtATimeIsSent) {
  std::atomic<int> inside = 0;
  std::atomic<bool> overlap = false;
  std::atomic<int> finished = 0;
  for (int test = 0; test < 8; ++test) {
    pacer.Add(SteadyNow(), [&, left = 50]() mutable -> std::optional<SteadyTime> {
      if (++inside != 1) overlap = true;
      --inside;
      if (--left > 0) return SteadyNow();
      ++finished;
      return std::nullopt;
    });
  }
  EXPECT_TRUE(Within20Seconds([&] { return finished == 8; }));
  EXPECT_FALSE(overlap);
}

TEST_F(PacerTest, LeavesTheThreadWhenTheQueueIsEmpty) {
  std::atomic<int> sent = 0;
  for (int round = 0; round < 20; ++round) {
    pacer.Add(SteadyNow(), [&]() -> std::optional<SteadyTime> {
      ++sent;
      return std::nullopt;
    });
    ASSERT_TRUE(Within20Seconds([&] { return sent == round + 1; }));
  }
}

TEST_F(PacerTest, StopEndsTheWaitAndSendsNothingMore) {
  std::atomic<int> sent = 0;
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> gone = held;
  pacer.Add(SteadyNow() + hours(1), [&, held]() -> std::optional<SteadyTime> {
    ++sent;
    return std::nullopt;
  });
  held.reset();
  pacer.Stop();
  EXPECT_TRUE(gone.expired()) << "what a probe holds is let go";
  pacer.Add(SteadyNow(), [&]() -> std::optional<SteadyTime> {
    ++sent;
    return std::nullopt;
  });
  pacer.LetDueProbesPass();
  EXPECT_EQ(sent, 0);
}

}  // namespace
}  // namespace ipsla::test
