// What is wrong with a command line that has words too many. Pure.

#ifndef IPSLA_TOOLS_CTL_USAGE_FAULT_H_
#define IPSLA_TOOLS_CTL_USAGE_FAULT_H_

#include <string>
#include <vector>

namespace ipsla::ctl {

/// Words of which the command line makes nothing, where `commands` and `options` are what could
/// stand there: "unknown command 'foo'; did you mean 'show'?", "unknown option '--al'; did you mean
/// '--all'?" or "surplus arguments 'a' 'b'". REQUIRES: there is a word.
[[nodiscard]] std::string SurplusText(const std::vector<std::string>& words,
                                      const std::vector<std::string>& commands,
                                      const std::vector<std::string>& options);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_USAGE_FAULT_H_
