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
  return line;
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
