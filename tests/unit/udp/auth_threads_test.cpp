// Signing by threads of different real-time priorities that share a CPU, as the daemon's do.

#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "log/sanitizers.h"
#include "udp/auth_funcs.h"

namespace ipsla {
namespace {

constexpr int kThreads = 15;
constexpr int kRequests = 200;  // of each thread; two or three had been enough to stand still
constexpr std::array kPriorities = {98, 99};

bool SetPriority(int priority) {
  const sched_param parameters{.sched_priority = priority};
  return sched_setscheduler(0, SCHED_RR, &parameters) == 0;
}

// What is late wakes up in the middle of what another thread does.
void SignInTurns(unsigned seed) {
  std::minstd_rand random(seed);
  for (int i = 0; i < kRequests; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 1000));
    SetPriority(kPriorities[random() % kPriorities.size()]);
    ControlPhaseMessage request;
    static_cast<void>(
        SignControlRequest(1, SlaAuthAlgorithm::kHmacSha256, "a key of some length", &request));
    SetPriority(kPriorities.back());
  }
}

// A process of its own: one that stands still can only be killed.
[[noreturn]] void SignInManyThreads() {
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(0, &first);
  if (sched_setaffinity(0, sizeof first, &first) != 0) _exit(2);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (unsigned i = 1; i <= kThreads; ++i) threads.emplace_back(SignInTurns, i);
  for (std::thread& thread : threads) thread.join();
  _exit(0);
}

TEST(AuthThreadsTest, DifferentPrioritiesDoNotStandInEachOthersWay) {
  if (log_internal::kSanitized) GTEST_SKIP() << "a sanitized daemon has one priority";
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "nobody could watch";
  // The threads that must end share CPU 0; who waits for them is elsewhere.
  const pid_t child = fork();
  if (child == 0) SignInManyThreads();
  ASSERT_GT(child, 0);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0 && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const bool stands_still = kill(child, SIGKILL) == 0 && waitpid(child, &status, 0) == child;
  EXPECT_FALSE(stands_still);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
}  // namespace ipsla
