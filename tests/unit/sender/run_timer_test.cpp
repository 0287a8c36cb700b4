#include "sender/run_timer.h"

#include <chrono>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ipsla {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class RunTimerTest : public testing::Test {
 protected:
  // Notes the number of a wait when it expires and counts.
  void Arm(milliseconds after, int number) {
    timer.Arm(after, [this, number](RunTimer::Ticket ticket) {
      if (timer.IsCurrent(ticket)) counted.push_back(number);
    });
  }

  boost::asio::io_context worker;
  RunTimer timer{worker};
  std::vector<int> counted;
};

TEST_F(RunTimerTest, CallsBackOnceAfterTheTime) {
  Arm(milliseconds(1), 1);
  worker.run();
  EXPECT_THAT(counted, ElementsAre(1));
}

TEST_F(RunTimerTest, TheLastWaitCounts) {
  Arm(milliseconds(0), 1);
  Arm(milliseconds(0), 2);
  worker.run();
  EXPECT_THAT(counted, ElementsAre(2));
}

TEST_F(RunTimerTest, ACancelledWaitDoesNotCall) {
  Arm(hours(1), 1);
  timer.Cancel();
  worker.run();  // returns at once: nothing is waited for
  EXPECT_THAT(counted, IsEmpty());
}

TEST_F(RunTimerTest, AWaitThatHasExpiredIsVoidOnceItIsCancelled) {
  bool expired = false;
  timer.Arm(milliseconds(0), [&](RunTimer::Ticket ticket) {
    expired = true;
    timer.Cancel();
    EXPECT_FALSE(timer.IsCurrent(ticket));
  });
  worker.run();
  EXPECT_TRUE(expired);
}

}  // namespace
}  // namespace ipsla
