#include "env/process.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include "log/log.h"
#include "log/sanitizers.h"
#include "log/thread_stack.h"

namespace ipsla {

int CheckRootPriv() {
  return getuid() == 0 ? 1 : -1;
}

void AllowManyDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  static_cast<void>(setrlimit(RLIMIT_NOFILE, &limit));
}

int SetCpuNum(pthread_t thread, std::uint8_t cpu) {
  cpu_set_t set;  // 1024 CPUs
  static_assert(sizeof set == 128 && CPU_SETSIZE == 1024);
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  if (pthread_setaffinity_np(thread, sizeof set, &set) != 0) {
    LOG_DEBUG(0, "set thread affinity failed");
    return -1;
  }
  return 0;
}

BelowPacing::BelowPacing(bool wanted) {
  // The sanitizers guard their own data by locks that are waited for awake: a thread that holds one
  // and is interrupted by another of a higher priority that wants it would never go on.
  if (!wanted || log_internal::kSanitized) return;
  constexpr int kHighest = 99;
  sched_param parameters{};
  const int policy = sched_getscheduler(0);
  if ((policy != SCHED_RR && policy != SCHED_FIFO) || sched_getparam(0, &parameters) != 0) return;
  if (parameters.sched_priority != kHighest) return;
  parameters.sched_priority = kHighest - 1;
  if (sched_setparam(0, &parameters) == 0) before_ = kHighest;
}

BelowPacing::~BelowPacing() {
  if (before_ == 0) return;
  sched_param parameters{};
  parameters.sched_priority = before_;
  static_cast<void>(sched_setparam(0, &parameters));  // the right to it was there a moment ago
}

std::size_t ThreadStackBytes() {
  return log_internal::RoundedStackBytes();
}

}  // namespace ipsla
