#include "responder/command_line.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <numeric>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

namespace ipsla::responder {
namespace {

constexpr int kExitUsage = 2;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

constexpr const char* kDescription =
    "Answers the control phase and the probes of udp-echo, udp-jitter and udp-jitter-ntp tests.\n"
    "\n"
    "A test's sender asks on the control port for a session. The responder checks the request,\n"
    "opens the measurement port, answers every probe that comes from the sender's address and\n"
    "port, and ends the session after the requested duration with one line of statistics. A\n"
    "faulty request is answered with the status that names the fault.";

constexpr const char* kFooter =
    "AUTHENTICATION\n"
    "  Without a key only requests without authentication are served; with --password or\n"
    "  --keychain only those in that mode (with both, either), unless --allow-open is given. A\n"
    "  KEY of hexadecimal digits, with or without 0x, stands for the bytes it spells, as in the\n"
    "  tasks file; any other text is the key itself. Key texts of a keychain are taken as they\n"
    "  stand. An empty key is an error. Other users can see a key on the command line: prefer\n"
    "  --password-file. A signed request opens one session only, however often it comes.\n"
    "\n"
    "ADDRESSES\n"
    "  Both responder addresses in a request must be the one given with --bind or, without it,\n"
    "  addresses of this host: a responder behind address translation is not reached. A port of\n"
    "  0 in a request is chosen from --port-range; sessions may share a port.\n"
    "\n"
    "OUTPUT\n"
    "  listening on ADDRESS:PORT   ready\n"
    "  session ID WHAT: ...        type, sender, port, probes received, distinct sequence\n"
    "                              numbers, duplicates, out of order, replies, errors. WHAT is\n"
    "                              ended, idle, stopped, replaced or restarted (the sender has\n"
    "                              begun a new run)\n"
    "  statistics: ...             on SIGUSR1 and at the end\n"
    "\n"
    "SIGNALS\n"
    "  SIGTERM, SIGINT  end all sessions, print their statistics, exit\n"
    "  SIGHUP           read the keys again; a file that cannot be read changes nothing\n"
    "  SIGUSR1          print the statistics\n"
    "\n"
    "EXIT STATUS\n"
    "  0 stopped by a signal, 1 could not start, 2 wrong usage\n"
    "\n"
    "EXAMPLES\n"
    "  ip-sla-responder\n"
    "  ip-sla-responder --bind 192.0.2.10 --keychain /etc/ip-sla/keychain.json --realtime 10\n"
    "  ip-sla-responder --netns blue --verbose";

// Options as they are written, before they are converted.
struct Words {
  std::string bind = "0.0.0.0";
  std::string port_range = "50001-50100";
  std::string password;
  std::string password_file;
  std::string keychain;
  std::uint32_t max_duration_s = 3600;
  std::uint32_t idle_timeout_s = 300;
};

// Both ends of "LOW-HIGH". False for anything else.
bool ReadPortRange(const std::string& text, std::uint16_t* low, std::uint16_t* high) {
  unsigned first = 0;
  unsigned last = 0;
  int end = 0;
  const int fields = std::sscanf(text.c_str(), "%5u-%5u%n", &first, &last, &end);
  if (fields != 2 || static_cast<std::size_t>(end) != text.size()) return false;
  if (first < 1 || first > last || last > 65535) return false;
  *low = static_cast<std::uint16_t>(first);
  *high = static_cast<std::uint16_t>(last);
  return true;
}

std::string CheckPortRange(const std::string& text) {
  std::uint16_t low = 0;
  std::uint16_t high = 0;
  if (ReadPortRange(text, &low, &high)) return {};
  return "a port range is LOW-HIGH with 1 <= LOW <= HIGH <= 65535";
}

std::string CheckNamespace(const std::string& name) {
  return name.empty() ? "a network namespace has a name" : "";
}

void AddAddressOptions(CLI::App* app, CommandLine* line, Words* words) {
  app->add_option("--bind", words->bind, "Answer on this address only")
      ->type_name("ADDRESS")
      ->capture_default_str()
      ->check(CLI::ValidIPV4);
  app->add_option("--control-port", line->options.control_port,
                  "Port for requests; 0: any, see the output")
      ->type_name("PORT")
      ->capture_default_str();
  app->add_option("--port-range", words->port_range, "Ports that may be used for measurements")
      ->type_name("LOW-HIGH")
      ->capture_default_str()
      ->check(CLI::Validator(CheckPortRange, "", "port range"));
  app->add_option("--netns", line->netns, "Run in this network namespace (see ip-netns(8))")
      ->type_name("NAME")
      ->check(CLI::Validator(CheckNamespace, "", "network namespace"));
}

void AddKeyOptions(CLI::App* app, CommandLine* line, Words* words) {
  auto* password =
      app->add_option("--password", words->password, "Key of authentication mode \"password\"");
  password->type_name("KEY");
  app->add_option("--password-file", words->password_file,
                  "The same, read from the first line of a file")
      ->type_name("FILE")
      ->excludes(password);
  app->add_option("--keychain", words->keychain,
                  "Keychain file, as the sender's, for mode \"keychain\"")
      ->type_name("FILE");
  app->add_flag("--allow-open", line->keys.allow_open,
                "Also serve requests without authentication");
}

void AddLimitOptions(CLI::App* app, CommandLine* line, Words* words) {
  constexpr std::uint32_t kMostSeconds = std::numeric_limits<std::uint32_t>::max() / 1000;
  SessionLimits* const limits = &line->options.limits;
  app->add_option("--max-sessions", limits->sessions, "Refuse more sessions at a time")
      ->type_name("COUNT")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000000));
  app->add_option("--max-sessions-per-source", limits->sessions_per_source,
                  "Refuse more sessions that one address asked for")
      ->type_name("COUNT")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000000));
  app->add_option("--max-duration", words->max_duration_s,
                  "End a session after so long, even if more was asked for")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(std::uint32_t{1}, kMostSeconds));
  app->add_option("--idle-timeout", words->idle_timeout_s,
                  "End a session to which no probe comes for so long")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(std::uint32_t{1}, kMostSeconds));
}

void AddOtherOptions(CLI::App* app, CommandLine* line) {
  app->add_flag("--dscp-reflect,!--no-dscp-reflect", line->options.dscp_reflect,
                "Replies carry the DSCP of their probes (default), or not");
  app->add_option("--realtime", line->real_time_priority,
                  "Run with this real-time priority (SCHED_FIFO) where permitted")
      ->type_name("PRIORITY")
      ->check(CLI::Range(1, 99));
  app->add_flag("--verbose", line->options.verbose,
                "Print opened sessions and refused requests too");
  app->set_version_flag("-V,--version", "ip-sla-responder " IPSLA_VERSION);
}

// How many characters to change, add or take away to make one text of the other.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

// The long option that `word` was most probably meant to be, empty when none is near.
std::string Nearest(const CLI::App& app, const std::string& word) {
  std::string nearest;
  std::size_t best = std::max<std::size_t>(2, word.size() / 3) + 1;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      const std::size_t distance = Distance(word, "--" + name);
      if (distance >= best) continue;
      best = distance;
      nearest = "--" + name;
    }
  }
  return nearest;
}

void PrintSurplus(const CLI::App& app) {
  for (const std::string& word : app.remaining()) {
    const std::string name = word.substr(0, word.find('='));
    if (!name.starts_with('-')) {
      std::fprintf(stderr, "ip-sla-responder: surplus argument '%s'\n", word.c_str());
      continue;
    }
    const std::string nearest = Nearest(app, name);
    std::fprintf(stderr, "ip-sla-responder: unknown option '%s'%s%s%s\n", name.c_str(),
                 nearest.empty() ? "" : "; did you mean '", nearest.c_str(),
                 nearest.empty() ? "" : "'?");
  }
  std::fputs("Run with --help for more information.\n", stderr);
}

void Convert(const CLI::App& app, const Words& words, CommandLine* line) {
  ResponderOptions* const options = &line->options;
  inet_pton(AF_INET, words.bind.c_str(), &options->bind);
  ReadPortRange(words.port_range, &options->lowest_port, &options->highest_port);
  options->limits.duration_ms = words.max_duration_s * 1000;
  options->limits.idle = words.idle_timeout_s * kNanosecondsPerSecond;
  // A name that is given and empty is a fault, not a responder without keys.
  if (app.count("--password") > 0) line->keys.password = words.password;
  if (app.count("--password-file") > 0) line->keys.password_file = words.password_file;
  if (app.count("--keychain") > 0) line->keys.keychain = words.keychain;
}

}  // namespace

std::optional<CommandLine> ReadCommandLine(int argc, const char* const* argv, int* status) {
  CommandLine line;
  Words words;
  CLI::App app(kDescription, "ip-sla-responder");
  app.footer(kFooter);
  AddAddressOptions(&app, &line, &words);
  AddKeyOptions(&app, &line, &words);
  AddLimitOptions(&app, &line, &words);
  AddOtherOptions(&app, &line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ExtrasError&) {
    PrintSurplus(app);
    *status = kExitUsage;
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    *status = app.exit(error) == 0 ? 0 : kExitUsage;  // --help comes this way too
    return std::nullopt;
  }
  Convert(app, words, &line);
  return line;
}

}  // namespace ipsla::responder
