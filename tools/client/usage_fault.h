// What is wrong with a command line that has words too many. Pure.

#ifndef IPSLA_TOOLS_CLIENT_USAGE_FAULT_H_
#define IPSLA_TOOLS_CLIENT_USAGE_FAULT_H_

#include <string>
#include <vector>

namespace ipsla::client {

/// Words of which the command line makes nothing, where `commands` and `options` are what could
/// stand there: "unknown command 'foo'; did you mean 'show'?", "unknown option '--al'; did you mean
/// '--all'?" or "surplus arguments 'a' 'b'". An option behind an unknown command, or before one
/// that is near a known one, counts only when it is near a known option itself. The words stand
/// there as given. REQUIRES: there is a word.
[[nodiscard]] std::string SurplusText(const std::vector<std::string>& words,
                                      const std::vector<std::string>& commands,
                                      const std::vector<std::string>& options);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_USAGE_FAULT_H_
