// Whether this is a build for the sanitizers, for the few places where that makes a difference.

#ifndef IPSLA_LOG_SANITIZERS_H_
#define IPSLA_LOG_SANITIZERS_H_

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define IPSLA_SANITIZED true
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define IPSLA_SANITIZED true
#endif
#endif
#ifndef IPSLA_SANITIZED
#define IPSLA_SANITIZED false
#endif

namespace ipsla::log_internal {

/// Instrumented by the address, thread or memory sanitizer.
inline constexpr bool kSanitized = IPSLA_SANITIZED;

}  // namespace ipsla::log_internal

#undef IPSLA_SANITIZED

#endif  // IPSLA_LOG_SANITIZERS_H_
