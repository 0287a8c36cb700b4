// Keys from standard input, one at a time and unseen.

#ifndef IPSLA_TOOLS_CTL_TERMINAL_INPUT_H_
#define IPSLA_TOOLS_CTL_TERMINAL_INPUT_H_

#include <termios.h>

#include <string>

namespace ipsla::ctl {

/// Switches the terminal to single keys without echo while it lives; Ctrl-C stays a signal. Does
/// nothing where standard input is no terminal, or one that another process group has.
class TerminalInput {
 public:
  /// Makes the terminal give each key at once, and as it was in the end.
  TerminalInput();
  ~TerminalInput();
  TerminalInput(const TerminalInput&) = delete;
  TerminalInput& operator=(const TerminalInput&) = delete;

  /// The descriptor to wait for, -1 when there are no keys.
  [[nodiscard]] int Fd() const { return fd_; }

  /// What was typed, without waiting. After the end of the input there are no keys any more.
  [[nodiscard]] std::string Read();

 private:
  // -1: there is no terminal.
  int fd_ = -1;
  termios before_{};
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TERMINAL_INPUT_H_
