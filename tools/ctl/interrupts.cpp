#include "ctl/interrupts.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "client/api_client.h"

namespace ipsla::ctl {

Interrupts::Interrupts() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, &previous_mask_);
  fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ >= 0) return;
  const int error = errno;
  sigprocmask(SIG_SETMASK, &previous_mask_, nullptr);
  throw client::ClientError(client::ClientError::Kind::kSystem,
                            std::string("signalfd: ") + std::strerror(error));
}

Interrupts::~Interrupts() {
  // What came is dealt with: it must not end the process now.
  signalfd_siginfo taken{};
  while (read(fd_, &taken, sizeof taken) > 0) continue;
  close(fd_);
  sigprocmask(SIG_SETMASK, &previous_mask_, nullptr);
}

bool Interrupts::WaitFor(std::chrono::milliseconds duration) const {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + duration;
  pollfd wait{Fd(), POLLIN, 0};
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (poll(&wait, 1, static_cast<int>(std::max<std::int64_t>(left, 0))) > 0) {
      return true;
    }
    if (Clock::now() >= deadline) {
      return false;
    }
  }
}

}  // namespace ipsla::ctl
