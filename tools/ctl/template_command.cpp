#include <sys/random.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <system_error>

#include <fmt/format.h>

#include "ctl/check.h"
#include "ctl/commands.h"
#include "ctl/display_text.h"
#include "ctl/json_out.h"
#include "ctl/route_source.h"
#include "ctl/template.h"

namespace ipsla::ctl {
namespace {

/// A random key as text that is easy to copy.
std::string NewKey() {
  std::array<std::uint8_t, 24> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw std::system_error(errno, std::generic_category(), "no random key");
  }
  std::string key;
  for (const std::uint8_t byte : bytes) {
    key += fmt::format("{:02x}", byte);
  }
  return key;
}

int Refuse(const CommonOptions& common, const std::vector<std::string>& reasons) {
  for (const std::string& reason : reasons) {
    fmt::print(stderr, "ip-sla-ctl: {}\n", Printable(reason));
  }
  if (common.json) {
    fmt::print("{}\n", ErrorJson(reasons.empty() ? "" : reasons.front()));
  }
  return kExitUsage;
}

FileReport CheckText(const std::string& text, HostView* host) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return CheckTasks("template", {.text = text}, nullptr, {.now = now, .host = host});
}

}  // namespace

int RunTaskTemplate(const CommonOptions& common, const TemplateOptions& options) {
  const RouteEnds ends = FindRoute(options.destination, options.source, options.vrf);
  if (!ends.fault.empty()) {
    return Refuse(common, {ends.fault});
  }
  const std::string text = TasksFileText({.type = TestTypeFromString(options.type),
                                          .source = ends.source,
                                          .destination = ends.destination,
                                          .vrf = options.vrf,
                                          .control_port = options.port,
                                          .key_id = options.key_id,
                                          .interval_ms = options.interval_ms,
                                          .packets = options.packets,
                                          .period_s = options.period_s});
  // What is printed is to work: with what was asked for it may not.
  const FileReport report = CheckText(text, nullptr);
  if (!report.faults.empty()) {
    return Refuse(common, FindingLines(report, "task"));
  }
  fmt::print("{}", text);
  // What is missing here only may be there where the file is used.
  SystemHost host;
  for (const std::string& line : FindingLines(CheckText(text, &host), "task")) {
    fmt::print(stderr, "ip-sla-ctl: {}\n", Printable(line));
  }
  return kExitFine;
}

int RunKeychainTemplate(std::int32_t key_id) {
  fmt::print("{}", KeychainFileText(key_id, NewKey()));
  return kExitFine;
}

}  // namespace ipsla::ctl
