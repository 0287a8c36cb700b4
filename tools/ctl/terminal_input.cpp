#include "ctl/terminal_input.h"

#include <unistd.h>

#include <array>
#include <cerrno>

namespace ipsla::ctl {

TerminalInput::TerminalInput() {
  // A process in the background would be stopped.
  const bool is_ours = isatty(STDIN_FILENO) == 1 && tcgetpgrp(STDIN_FILENO) == getpgrp();
  if (!is_ours || tcgetattr(STDIN_FILENO, &before_) != 0) {
    return;
  }
  termios single = before_;
  single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  single.c_cc[VMIN] = 0;
  single.c_cc[VTIME] = 0;
  if (tcsetattr(STDIN_FILENO, TCSANOW, &single) == 0) {
    fd_ = STDIN_FILENO;
  }
}

TerminalInput::~TerminalInput() {
  if (fd_ >= 0) {
    (void)tcsetattr(STDIN_FILENO, TCSANOW, &before_);
  }
}

std::string TerminalInput::Read() {
  std::array<char, 256> bytes{};
  const ssize_t size = fd_ < 0 ? 0 : read(fd_, bytes.data(), bytes.size());
  if (size > 0) {
    return {bytes.data(), static_cast<std::size_t>(size)};
  }
  if (size == 0 || (errno != EINTR && errno != EAGAIN)) {
    // Readable without a byte: the terminal is gone.
    (void)(fd_ >= 0 && tcsetattr(STDIN_FILENO, TCSANOW, &before_) == 0);
    fd_ = -1;
  }
  return "";
}

}  // namespace ipsla::ctl
