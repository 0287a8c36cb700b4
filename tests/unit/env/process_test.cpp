#include "env/process.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/recording_syslog.h"

namespace ipsla::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(CheckRootPrivTest, AcceptsRoot) {
  EXPECT_EQ(CheckRootPriv(), 1);
}

TEST(CheckRootPrivTest, RefusesAnotherRealUser) {
  const auto run = [] {
    // The effective user stays root: the real one decides.
    if (setresuid(65534, 0, 0) != 0) FinishChild("setresuid");
    FinishChild(CheckRootPriv() == -1 ? "" : "accepted");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(SetCpuNumTest, PinsTheThread) {
  FreshLogFile(0);
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
  int cpu = 0;
  while (!CPU_ISSET(cpu, &allowed)) ++cpu;
  ASSERT_LT(cpu, 256);
  TakeSyslog();
  std::thread([cpu] {
    EXPECT_EQ(SetCpuNum(pthread_self(), static_cast<std::uint8_t>(cpu)), 0);
    cpu_set_t pinned;
    ASSERT_EQ(sched_getaffinity(0, sizeof pinned, &pinned), 0);
    EXPECT_EQ(CPU_COUNT(&pinned), 1);
    EXPECT_TRUE(CPU_ISSET(cpu, &pinned));
  }).join();
  EXPECT_THAT(TakeSyslogTexts(), IsEmpty());
}

TEST(SetCpuNumTest, LogsACpuThatTheMachineDoesNotHave) {
  if (sysconf(_SC_NPROCESSORS_CONF) > 200) GTEST_SKIP() << "this machine has a CPU 200";
  FreshLogFile(0);
  TakeSyslog();
  EXPECT_EQ(SetCpuNum(pthread_self(), 200), -1);
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("set thread affinity failed"));
  EXPECT_THAT(ReadLogFile(0), ElementsAre("set thread affinity failed"));
}

TEST(ThreadStackBytesTest, IsWholePagesOfAtLeast128KiB) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  EXPECT_EQ(ThreadStackBytes() % page, 0U);
  EXPECT_GE(ThreadStackBytes(), 131072U);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__has_feature)
  EXPECT_LT(ThreadStackBytes(), 131072U + page);
#endif
}

}  // namespace
}  // namespace ipsla::test
