// What a process and its threads are given: privileges, CPUs, stacks.

#ifndef IPSLA_ENV_PROCESS_H_
#define IPSLA_ENV_PROCESS_H_

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace ipsla {

/// 1 when the real user id is 0, else -1.
[[nodiscard]] int CheckRootPriv();

/// Raises the soft limit of open files to the hard one: every running test has one to three. Best
/// effort; without it a thousand tests fail to start.
void AllowManyDescriptors();

/// Pins `thread` to `cpu`. 0, or -1 after logging "set thread affinity failed".
int SetCpuNum(pthread_t thread, std::uint8_t cpu);

/// Runs the rest of a block one real-time priority below that of the daemon's threads, so that the
/// thread that sends due probes can interrupt it: for work that takes longer than a few
/// microseconds. Does nothing when it is not wanted, for a thread that is not under real-time
/// scheduling or is below already, and in a build for the sanitizers. Threads: affects the calling
/// thread only; create and end it on one thread.
class BelowPacing {
 public:
  explicit BelowPacing(bool wanted = true);
  ~BelowPacing();
  BelowPacing(const BelowPacing&) = delete;
  BelowPacing& operator=(const BelowPacing&) = delete;

 private:
  int before_ = 0;  // the priority to return to, 0 when nothing was changed
};

/// The stack of every thread of the daemon: 131072 bytes rounded up to whole pages (more in a
/// sanitizer build, whose instrumented frames and thread-local storage do not fit).
[[nodiscard]] std::size_t ThreadStackBytes();

}  // namespace ipsla

#endif  // IPSLA_ENV_PROCESS_H_
