// What standard output is.

#ifndef IPSLA_TOOLS_CTL_TERMINAL_H_
#define IPSLA_TOOLS_CTL_TERMINAL_H_

#include <cstddef>

#include "ctl/text_table.h"

namespace ipsla::ctl {

/// What standard output can show.
struct Terminal {
  bool is_terminal = false;
  bool colour = false;     ///< a terminal that is not "dumb", and NO_COLOR is not set
  std::size_t width = 0;   ///< columns; 0 when it is no terminal
  std::size_t height = 0;  ///< lines; 0 when it is no terminal

  /// How tables are laid out on it.
  [[nodiscard]] TableLayout Layout() const { return {.width = width, .colour = colour}; }
};

/// Looks at standard output and the environment as they are now (a window may change its size).
[[nodiscard]] Terminal StandardOutput();

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TERMINAL_H_
