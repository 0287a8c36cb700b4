#include "api/worker_threads.h"

#include <atomic>
#include <future>

#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include "support/process_facts.h"

namespace ipsla {
namespace {

using test::ThreadsOn;

TEST(WorkerThreadsTest, WithoutACpuNoneIsStarted) {
  const std::size_t before = ThreadsOn("0");
  WorkerThreads workers;
  workers.Start();
  workers.SetCpus({});
  workers.Start();
  EXPECT_EQ(ThreadsOn("0"), before);
}

TEST(WorkerThreadsTest, TwoCpusGiveThirtyThreadsPinned) {
  const std::size_t before = ThreadsOn("0");
  {
    WorkerThreads workers;
    workers.SetCpus({0, 0});
    workers.Start();
    EXPECT_EQ(ThreadsOn("0"), before + 30);
  }
  EXPECT_EQ(ThreadsOn("0"), before) << "the end joins them";
}

TEST(WorkerThreadsTest, AreGoneAtOnceHoweverOftenTheyAreStarted) {
  const std::size_t before = ThreadsOn("0");
  for (int time = 0; time < 50; ++time) {
    WorkerThreads workers;
    workers.SetCpus({0});
    workers.Start();
    workers.Stop();
    ASSERT_EQ(ThreadsOn("0"), before) << "after start " << time;
  }
}

TEST(WorkerThreadsTest, TheyAreStartedOnceThereIsACpuAndNotAgain) {
  const std::size_t before = ThreadsOn("0");
  WorkerThreads workers;
  workers.Start();
  workers.SetCpus({0});
  workers.Start();
  EXPECT_EQ(ThreadsOn("0"), before + 15);
  workers.SetCpus({0, 0, 0});
  workers.Start();
  EXPECT_EQ(ThreadsOn("0"), before + 15);
}

TEST(WorkerThreadsTest, ContextIsRunUntilTheStop) {
  WorkerThreads workers;
  workers.SetCpus({0});
  workers.Start();
  std::promise<void> ran;
  boost::asio::post(workers.Context(), [&ran] { ran.set_value(); });
  EXPECT_EQ(ran.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  workers.Stop();
  std::atomic<bool> ran_again = false;
  boost::asio::post(workers.Context(), [&ran_again] { ran_again = true; });
  workers.Start();
  workers.Stop();
  EXPECT_FALSE(ran_again);
}

}  // namespace
}  // namespace ipsla
