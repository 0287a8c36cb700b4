// The daemon's command line as a value, and its two texts.

#ifndef IPSLA_MAIN_COMMAND_LINE_H_
#define IPSLA_MAIN_COMMAND_LINE_H_

#include <string>
#include <vector>

namespace ipsla {

/// What the command line asks for.
struct CommandLine {
  enum class Action {
    kRun,
    kPrintVersion,  ///< print VersionBanner() and exit with 0
    kPrintUsage,    ///< print UsageText() and exit with 1
  };

  /// Both files are empty unless given.
  Action action = Action::kRun;
  std::string tasks_file;     ///< "-f"; empty when not given, which fails later, when it is read
  std::string keychain_file;  ///< "-k"; likewise
  std::vector<std::string> surplus{};  ///< words that are no option and no option's; not read
};

/// Reads the options up to the first that decides ("-v", or one that is unknown or lacks its
/// argument). A later "-f" or
/// "-k" replaces an earlier one. getopt(3) names a bad option on standard error.
/// Threads: main only (getopt(3) keeps its state in globals).
[[nodiscard]] CommandLine ParseCommandLine(int argc, char* const argv[]);

/// One line with the version and the time of the build, its newline included.
[[nodiscard]] std::string VersionBanner();

/// For a person: the words that are not read, or the options that are missing. Empty when there are
/// none.
[[nodiscard]] std::string SurplusText(const CommandLine& line);
[[nodiscard]] std::string MissingText(const CommandLine& line);

/// How to call `program`, newlines included.
[[nodiscard]] std::string UsageText(const std::string& program);

}  // namespace ipsla

#endif  // IPSLA_MAIN_COMMAND_LINE_H_
