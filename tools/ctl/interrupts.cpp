#include "ctl/interrupts.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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

Interrupts::Wake Interrupts::WaitUntil(std::chrono::steady_clock::time_point deadline,
                                       int input_fd) const {
  using Clock = std::chrono::steady_clock;
  std::array<pollfd, 2> waits{pollfd{Fd(), POLLIN, 0}, pollfd{input_fd, POLLIN, 0}};
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const int ready = poll(waits.data(), waits.size(),
                           static_cast<int>(std::clamp<std::int64_t>(left, 0, 86400000)));
    if (ready > 0) {
      return waits[0].revents != 0 ? Wake::kInterrupt : Wake::kInput;
    }
    if (Clock::now() >= deadline) {
      return Wake::kTime;
    }
  }
}

}  // namespace ipsla::ctl
