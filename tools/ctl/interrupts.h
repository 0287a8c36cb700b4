// SIGINT and SIGTERM as a readable descriptor instead of a death.

#ifndef IPSLA_TOOLS_CTL_INTERRUPTS_H_
#define IPSLA_TOOLS_CTL_INTERRUPTS_H_

#include <chrono>
#include <csignal>
#include <cstdint>

namespace ipsla::ctl {

/// Takes the two signals over while it lives. Only in a process of one thread: another one would
/// still take them the usual way.
class Interrupts {
 public:
  /// Throws ClientError.
  Interrupts();
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  /// Readable from the first signal on.
  [[nodiscard]] int Fd() const { return fd_; }

  /// What ended a wait.
  enum class Wake : std::uint8_t { kTime, kInput, kInterrupt };
  /// Waits until `deadline`, until `input_fd` is readable (-1: none), or until interrupted.
  [[nodiscard]] Wake WaitUntil(std::chrono::steady_clock::time_point deadline, int input_fd) const;

 private:
  sigset_t previous_mask_{};
  int fd_ = -1;
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_INTERRUPTS_H_
