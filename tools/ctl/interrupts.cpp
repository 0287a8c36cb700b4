#include "ctl/interrupts.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "client/api_client.h"

namespace ipsla::ctl {
namespace {

/// What the handler writes to; set before the handlers are and closed after they are gone.
volatile sig_atomic_t handler_fd = -1;

void OnSignal(int /*signal*/) {
  const int saved_errno = errno;
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(handler_fd, &one, sizeof(one));
  errno = saved_errno;
}

}  // namespace

Interrupts::Interrupts() : event_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (event_fd_ < 0) {
    throw client::ClientError(client::ClientError::Kind::kSystem,
                              std::string("eventfd: ") + std::strerror(errno));
  }
  handler_fd = event_fd_;
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &previous_interrupt_);
  sigaction(SIGTERM, &action, &previous_terminate_);
}

Interrupts::~Interrupts() {
  sigaction(SIGINT, &previous_interrupt_, nullptr);
  sigaction(SIGTERM, &previous_terminate_, nullptr);
  close(event_fd_);
  handler_fd = -1;
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
