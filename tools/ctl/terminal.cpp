#include "ctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace ipsla::ctl {
namespace {

std::string_view Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string_view{} : value;
}

}  // namespace

Terminal StandardOutput() {
  Terminal terminal;
  terminal.is_terminal = isatty(STDOUT_FILENO) == 1;
  if (!terminal.is_terminal) {
    return terminal;
  }
  const std::string_view kind = Environment("TERM");
  terminal.colour = Environment("NO_COLOR").empty() && !kind.empty() && kind != "dumb";
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
    terminal.width = size.ws_col;
    terminal.height = size.ws_row;
  }
  return terminal;
}

}  // namespace ipsla::ctl
