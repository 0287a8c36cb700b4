// What to do about the reasons that runs fail for. One table: docs/troubleshooting.md says the same
// at length. Pure.

#ifndef IPSLA_TOOLS_CTL_HINTS_H_
#define IPSLA_TOOLS_CTL_HINTS_H_

#include <span>
#include <string>
#include <string_view>

#include "config/names.h"

namespace ipsla::ctl {

/// What to look at when a run failed.
struct Hint {
  std::string_view reason;                ///< the text of a failed run, or how it begins
  std::string_view hint;                  ///< one short sentence without a full stop
  SlaTestType type = SlaTestType::kNone;  ///< the only one that it is for; kNone: all
};

/// All of them. A reason that begins with another stands before it, and so does the hint of one
/// type.
[[nodiscard]] std::span<const Hint> Hints();

/// The hint for the reason of a task of this type; empty when there is none.
[[nodiscard]] std::string_view HintFor(std::string_view reason, SlaTestType type);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_HINTS_H_
