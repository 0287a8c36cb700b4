// The size of every thread's stack. It stands here and not with its users' threads because the
// lowest of them is the log's writer.

#ifndef IPSLA_LOG_THREAD_STACK_H_
#define IPSLA_LOG_THREAD_STACK_H_

#include <unistd.h>

#include <cstddef>

#include "log/sanitizers.h"

namespace ipsla::log_internal {

/// Bytes asked for. Instrumented frames are several times as large, and the sanitizers'
/// thread-local storage lies on the stack as well.
inline constexpr std::size_t kStackBytes = kSanitized ? 16U * 131072U : 131072U;

/// kStackBytes rounded up to whole pages.
[[nodiscard]] inline std::size_t RoundedStackBytes() {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return (kStackBytes + page - 1) / page * page;
}

}  // namespace ipsla::log_internal

#endif  // IPSLA_LOG_THREAD_STACK_H_
