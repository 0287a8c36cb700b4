// The size of every thread's stack. It stands here and not with its users' threads because the
// lowest of them is the log's writer.

#ifndef IPSLA_LOG_THREAD_STACK_H_
#define IPSLA_LOG_THREAD_STACK_H_

#include <unistd.h>

#include <cstddef>

// Instrumented frames are several times as large, and the sanitizers' thread-local storage lies on
// the stack as well.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
/// Frames are larger under a sanitizer.
#define IPSLA_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define IPSLA_SANITIZED 1
#endif
#endif

namespace ipsla::log_internal {

#ifdef IPSLA_SANITIZED
/// Bytes asked for.
inline constexpr std::size_t kStackBytes = 16U * 131072U;
#else
/// Bytes asked for.
inline constexpr std::size_t kStackBytes = 131072;
#endif

/// kStackBytes rounded up to whole pages.
[[nodiscard]] inline std::size_t RoundedStackBytes() {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return (kStackBytes + page - 1) / page * page;
}

}  // namespace ipsla::log_internal

#undef IPSLA_SANITIZED

#endif  // IPSLA_LOG_THREAD_STACK_H_
