// A second stack for a thread's signal handlers. It stands here and not with the threads' users
// because the lowest of them is the log's writer.

#ifndef IPSLA_LOG_SIGNAL_STACK_H_
#define IPSLA_LOG_SIGNAL_STACK_H_

#include <csignal>
#include <cstddef>
#include <memory>

namespace ipsla::log_internal {

/// While it lives, the handlers of fatal signals run on a stack of their own: the overflow of the
/// usual one can only be reported from another. One for each thread, made and ended on it, first
/// in its function. Best effort.
class SignalStack {
 public:
  /// Gives the calling thread its own, and takes it back on the same thread.
  SignalStack() {
    stack_t current{};
    if (sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0) {
      return;  // a sanitizer has made one already
    }
    bytes_ = std::make_unique_for_overwrite<std::byte[]>(kBytes);
    stack_t own{};
    own.ss_sp = bytes_.get();
    own.ss_size = kBytes;
    sigaltstack(&own, nullptr);
  }
  ~SignalStack() {
    if (!bytes_) return;
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
  }
  SignalStack(const SignalStack&) = delete;
  SignalStack& operator=(const SignalStack&) = delete;

 private:
  // Room for a crash trace.
  static constexpr std::size_t kBytes = 65536;

  std::unique_ptr<std::byte[]> bytes_;
};

}  // namespace ipsla::log_internal

#endif  // IPSLA_LOG_SIGNAL_STACK_H_
