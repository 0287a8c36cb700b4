// The responder's command line.

#ifndef IPSLA_TOOLS_RESPONDER_COMMAND_LINE_H_
#define IPSLA_TOOLS_RESPONDER_COMMAND_LINE_H_

#include <optional>
#include <string>

#include "responder/keys.h"
#include "responder/responder.h"

namespace ipsla::responder {

/// What the command line asks for.
struct CommandLine {
  ResponderOptions options;  ///< but for the keys
  KeySources keys;
  std::string netns;           ///< the network namespace to run in; empty: our own
  int real_time_priority = 0;  ///< SCHED_FIFO; 0: none
};

/// Reads the command line. Nothing when there is nothing to do but to exit with `status`: help or
/// version was asked for, or the usage is wrong; that is printed.
[[nodiscard]] std::optional<CommandLine> ReadCommandLine(int argc, const char* const* argv,
                                                         int* status);

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_COMMAND_LINE_H_
