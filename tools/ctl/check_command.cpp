#include <ctime>

#include <fmt/format.h>

#include "ctl/check.h"
#include "ctl/commands.h"
#include "ctl/display_text.h"

namespace ipsla::ctl {

int RunCheck(const CommonOptions& common, const CheckOptions& options) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const CheckReport report = CheckFiles(options.tasks_file, options.keychain_file, now);
  if (common.json) {
    fmt::print("{}\n", CheckJson(report));
  } else {
    for (const std::string& line : CheckLines(report)) {
      fmt::print("{}\n", Printable(line));
    }
  }
  return report.HasFaults() ? kExitFailing : kExitFine;
}

}  // namespace ipsla::ctl
