#include "main/command_line.h"

#include <unistd.h>

namespace ipsla {
namespace {

constexpr const char* kVersion = "R1.0.0-78d40e7-dirty";

}  // namespace

CommandLine ParseCommandLine(int argc, char* const argv[]) {
  CommandLine line;
  optind = 1;
  for (int option = 0; (option = getopt(argc, argv, "f:k:v")) != -1;) {
    switch (option) {
      case 'f':
        line.tasks_file = optarg;
        break;
      case 'k':
        line.keychain_file = optarg;
        break;
      case 'v':
        line.action = CommandLine::Action::kPrintVersion;
        return line;
      default:
        line.action = CommandLine::Action::kPrintUsage;
        return line;
    }
  }
  // getopt(3) has moved them behind the options.
  line.surplus.assign(argv + optind, argv + argc);
  return line;
}

std::string SurplusText(const CommandLine& line) {
  if (line.surplus.empty()) return {};
  std::string text = line.surplus.size() == 1 ? "surplus argument" : "surplus arguments";
  for (const std::string& word : line.surplus) text += " '" + word + "'";
  return text + (line.surplus.size() == 1 ? " is" : " are") + " not read";
}

std::string MissingText(const CommandLine& line) {
  std::string text;
  if (line.tasks_file.empty()) text = "-f with the tasks file";
  if (line.keychain_file.empty()) {
    text += (text.empty() ? "" : " and ") + std::string("-k with the keychain file");
  }
  return text.empty() ? text : "missing: " + text;
}

std::string VersionBanner() {
  return std::string("IP SLA module version ") + kVersion + " (compiled " + __DATE__ + " @ " +
         __TIME__ + ")\n";
}

std::string UsageText(const std::string& program) {
  return "usage syntax: " + program +
         " -f [IP SLA tasks configuration file] -k [keychain configuration file]\n"
         "available type of measurement:\n"
         " - udp echo\n"
         " - udp jitter\n"
         " - udp jitter [ntp timestamp]\n"
         " - icmp echo\n"
         " - icmp jitter\n";
}

}  // namespace ipsla
