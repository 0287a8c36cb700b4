// What a process and its threads are given: privileges, CPUs, stacks.

#ifndef IPSLA_ENV_PROCESS_H_
#define IPSLA_ENV_PROCESS_H_

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace ipsla {

/// 1 when the real user id is 0, else -1.
[[nodiscard]] int CheckRootPriv();

/// Pins `thread` to `cpu`. 0, or -1 after logging "set thread affinity failed".
int SetCpuNum(pthread_t thread, std::uint8_t cpu);

/// The stack of every thread of the daemon: 131072 bytes rounded up to whole pages (more in a
/// sanitizer build, whose instrumented frames and thread-local storage do not fit).
[[nodiscard]] std::size_t ThreadStackBytes();

}  // namespace ipsla

#endif  // IPSLA_ENV_PROCESS_H_
