// SIGINT and SIGTERM as a readable descriptor instead of a death.

#ifndef IPSLA_TOOLS_CTL_INTERRUPTS_H_
#define IPSLA_TOOLS_CTL_INTERRUPTS_H_

#include <chrono>
#include <csignal>

namespace ipsla::ctl {

/// Takes the two signals over while it lives; one at a time. Handlers, not a blocked mask: the log
/// of the daemon's library has a thread of its own, on which an unblocked signal would still end
/// the process.
class Interrupts {
 public:
  /// Throws ClientError.
  Interrupts();
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  /// Readable from the first signal on.
  [[nodiscard]] int Fd() const { return event_fd_; }

  /// True when interrupted before `duration` has passed.
  [[nodiscard]] bool WaitFor(std::chrono::milliseconds duration) const;

 private:
  int event_fd_;
  struct sigaction previous_interrupt_ {};
  struct sigaction previous_terminate_ {};
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_INTERRUPTS_H_
