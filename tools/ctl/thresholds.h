// Thresholds of `probe`: "NAME=NUMBER[,NAME=NUMBER...]". Pure.
//
// rtt      average round-trip time, ms
// latency  average one-way latency of the worse direction, ms
// jitter   standard deviation of the one-way latency of the worse direction, ms
// loss     lost probes of the worse direction (echo tests: without a reply), percent
// age      time since the last run ended, seconds
//
// A value above its threshold counts; one equal to it does not.

#ifndef IPSLA_TOOLS_CTL_THRESHOLDS_H_
#define IPSLA_TOOLS_CTL_THRESHOLDS_H_

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ipsla::ctl {

/// By name.
using Thresholds = std::map<std::string, double>;

/// The names, in the order in which they are reported.
[[nodiscard]] const std::vector<std::string>& ThresholdNames();

/// Reads a threshold text; an empty one has none. Nothing when it is wrong, with the reason in
/// `error`. Numbers are decimal, not negative; a name comes once.
[[nodiscard]] std::optional<Thresholds> ReadThresholds(std::string_view text, std::string* error);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_THRESHOLDS_H_
