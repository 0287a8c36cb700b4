#include "env/keep_alive.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "env/keep_alive_timer.h"
#include "support/child_process.h"
#include "support/recording_keepalive.h"

namespace ipsla::test {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr milliseconds kAtOnce{0};
constexpr milliseconds kNever = hours(1);

std::vector<std::string> Names(const std::vector<KeepAliveCall>& calls) {
  std::vector<std::string> names;
  names.reserve(calls.size());
  for (const KeepAliveCall& call : calls) names.push_back(call.name);
  return names;
}

class KeepAliveTest : public testing::Test {
 protected:
  KeepAliveTest() { TakeKeepAliveCalls(); }

  boost::asio::io_context service_;
};

bool IsZeroed(const void* record) {
  const auto* bytes = static_cast<const unsigned char*>(record);
  return std::all_of(bytes, bytes + KEEPALIVE_RECORD_BYTES,
                     [](unsigned char byte) { return byte == 0; });
}

TEST_F(KeepAliveTest, SignalsInBetweenWhenOneIsDue) {
  KeepAliveTimer keep_alive(service_, {.first = kNever, .restart = kNever, .next = kAtOnce});
  keep_alive.SignalWhenDue();
  EXPECT_THAT(Names(TakeKeepAliveCalls()), IsEmpty()) << "not announced yet";
  keep_alive.Start();
  TakeKeepAliveCalls();
  keep_alive.SignalWhenDue();
  EXPECT_THAT(Names(TakeKeepAliveCalls()), ElementsAre("send_and_shift_timeout"));
}

TEST_F(KeepAliveTest, DoesNotSignalInBetweenBeforeOneIsDue) {
  KeepAliveTimer keep_alive(service_, {.first = kNever, .restart = kNever, .next = kNever});
  keep_alive.Start();
  TakeKeepAliveCalls();
  keep_alive.SignalWhenDue();
  EXPECT_THAT(Names(TakeKeepAliveCalls()), IsEmpty());
}

TEST_F(KeepAliveTest, AnnouncesTheProcessAndThenSignals) {
  KeepAliveTimer keep_alive(service_, {.first = kAtOnce, .restart = kNever, .next = kNever});
  keep_alive.Start();
  const std::vector<KeepAliveCall> announcement = TakeKeepAliveCalls();
  ASSERT_THAT(Names(announcement), ElementsAre("send_signal_live", "set_timeout"));
  EXPECT_THAT(announcement[0].numbers, ElementsAre(1, 2));
  EXPECT_TRUE(IsZeroed(announcement[1].records.at(0)));

  service_.run_one();
  const std::vector<KeepAliveCall> signal = TakeKeepAliveCalls();
  ASSERT_THAT(Names(signal), ElementsAre("send_and_shift_timeout"));
  EXPECT_THAT(signal[0].numbers, ElementsAre(2));
  EXPECT_EQ(signal[0].records.at(0), announcement[1].records.at(0));
  EXPECT_NE(signal[0].records.at(1), signal[0].records.at(0));
  EXPECT_TRUE(IsZeroed(signal[0].records.at(1)));
}

TEST_F(KeepAliveTest, GoesOnAfterEachSignal) {
  KeepAliveTimer keep_alive(service_, {.first = kAtOnce, .restart = kNever, .next = kAtOnce});
  keep_alive.Start();
  TakeKeepAliveCalls();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(service_.run_one(), 1U);
  EXPECT_EQ(TakeKeepAliveCalls().size(), 3U);
}

TEST_F(KeepAliveTest, StartsItsPeriodOverWithoutAnotherAnnouncement) {
  KeepAliveTimer keep_alive(service_, {.first = kNever, .restart = kAtOnce, .next = kNever});
  keep_alive.Start();
  TakeKeepAliveCalls();
  keep_alive.Start();
  EXPECT_THAT(TakeKeepAliveCalls(), IsEmpty());
  EXPECT_EQ(service_.run_one(), 1U);  // the cancelled wait, which ends its chain
  EXPECT_THAT(TakeKeepAliveCalls(), IsEmpty());
  EXPECT_EQ(service_.run_one(), 1U);
  EXPECT_THAT(Names(TakeKeepAliveCalls()), ElementsAre("send_and_shift_timeout"));
  EXPECT_EQ(service_.poll(), 0U);
}

// The wait has expired, and its handler is queued behind the one that starts the keep-alive anew.
TEST_F(KeepAliveTest, StaysOneChainWhenAStartMeetsAnExpiredWait) {
  boost::asio::steady_timer clock_watcher(service_, kAtOnce);
  KeepAliveTimer keep_alive(service_, {.first = kAtOnce, .restart = kNever, .next = kNever});
  clock_watcher.async_wait([&](const boost::system::error_code&) { keep_alive.Start(); });
  keep_alive.Start();
  TakeKeepAliveCalls();
  std::size_t handled = 0;
  while (handled < 3) handled += service_.run_one();
  EXPECT_THAT(Names(TakeKeepAliveCalls()), testing::Each("send_and_shift_timeout"));
  EXPECT_EQ(service_.poll(), 0U);

  // One wait is left: a further start cancels one, not two.
  keep_alive.Start();
  EXPECT_EQ(service_.poll(), 1U);
  EXPECT_THAT(TakeKeepAliveCalls(), IsEmpty());
}

TEST(StartKeepAliveTest, KeepsOneForTheProcess) {
  const auto run = [] {
    boost::asio::io_context service;
    TakeKeepAliveCalls();
    StartKeepAlive(service);
    if (TakeKeepAliveCalls().size() != 2) FinishChild("not announced");
    if (service.poll() != 0) FinishChild("a signal at once");
    StartKeepAlive(service);
    if (service.poll() != 1) FinishChild("the first wait was not cancelled");
    FinishChild(TakeKeepAliveCalls().empty() ? "" : "announced twice");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ipsla::test
