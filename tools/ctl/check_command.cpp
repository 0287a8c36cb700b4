#include <ctime>

#include <fmt/format.h>

#include "ctl/check.h"
#include "ctl/commands.h"
#include "ctl/display_text.h"

namespace ipsla::ctl {
namespace {

bool IsFailure(const CheckReport& report, const CheckOptions& options) {
  if (options.start) {
    return report.IsFatal();
  }
  return report.HasFaults() || (options.strict && report.HasWarnings());
}

}  // namespace

int RunCheck(const CommonOptions& common, const CheckOptions& options) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  SystemHost host;
  const CheckReport report = CheckFiles({.tasks_file = options.tasks_file,
                                         .keychain_file = options.keychain_file,
                                         .now = now,
                                         .host = options.no_host ? nullptr : &host});
  if (common.json) {
    fmt::print("{}\n", CheckJson(report));
  } else {
    for (const std::string& line : CheckLines(report)) {
      fmt::print("{}\n", Printable(line));
    }
  }
  return IsFailure(report, options) ? kExitFailing : kExitFine;
}

}  // namespace ipsla::ctl
