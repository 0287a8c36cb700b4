// Which groups of values an output needs. Pure.

#ifndef IPSLA_TOOLS_CTL_TASK_GROUPS_H_
#define IPSLA_TOOLS_CTL_TASK_GROUPS_H_

#include <cstddef>
#include <set>
#include <string>

namespace ipsla::ctl {

/// Below this width the table has no room for the losses per direction, however short the texts of
/// a jitter task.
inline constexpr std::size_t kLossColumnsFrom = 85;

/// Those of the table on a terminal of this width; 0: not on a terminal.
[[nodiscard]] inline std::set<std::string> TableGroups(std::size_t width) {
  std::set<std::string> groups{"jitter-values", "one-way-latency-values", "rtt-values"};
  if (width == 0 || width >= kLossColumnsFrom) {
    groups.insert("loss-values");
  }
  return groups;
}

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TASK_GROUPS_H_
