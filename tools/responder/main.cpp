// ip-sla-responder: the other end of UDP measurements, for labs, demonstrations and tests.

#include <arpa/inet.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

#include "config/config_file.h"
#include "config/keychain_rules.h"
#include "config/task_config.h"
#include "env/network_namespace.h"
#include "responder/responder.h"

namespace ipsla::responder {
namespace {

constexpr const char* kDescription =
    "Answers the control phase and the probes of udp-echo, udp-jitter and udp-jitter-ntp tests.\n"
    "\n"
    "A test's sender asks on the control port for a session. The responder checks the request, "
    "opens the measurement\n"
    "port, answers every probe that comes from the sender's address and port, and ends the session "
    "after the\n"
    "requested duration with one line of statistics. A faulty request is answered with the status "
    "that names the "
    "fault.";

constexpr const char* kFooter =
    "AUTHENTICATION\n"
    "  Without a key only requests without authentication are served; with --password or "
    "--keychain only those in "
    "that\n"
    "  mode (with both, either), unless --allow-open is given. A KEY of hexadecimal digits, with "
    "or without 0x, "
    "stands\n"
    "  for the bytes it spells, as in the tasks file; any other text is the key itself. Key texts "
    "of a keychain are\n"
    "  taken as they stand. Other users can see a key on the command line: prefer "
    "--password-file.\n"
    "\n"
    "ADDRESSES\n"
    "  Both responder addresses in a request must be the one given with --bind or, without it, "
    "addresses of this "
    "host:\n"
    "  a responder behind address translation is not reached. A port of 0 in a request is chosen "
    "from --port-range.\n"
    "\n"
    "OUTPUT\n"
    "  listening on ADDRESS:PORT           ready\n"
    "  session ID ended|replaced|stopped:  type, sender, port, probes received, distinct sequence "
    "numbers, "
    "duplicates,\n"
    "                                      out of order, replies, errors (wrong type or length, "
    "unanswered, unsent)\n"
    "\n"
    "SIGNALS\n"
    "  SIGTERM, SIGINT  end all sessions, print their statistics, exit\n"
    "  SIGHUP           read the keychain file again; a file that cannot be read changes nothing\n"
    "\n"
    "EXIT STATUS\n"
    "  0 stopped by a signal, 1 could not start, 2 wrong usage\n"
    "\n"
    "EXAMPLES\n"
    "  ip-sla-responder\n"
    "  ip-sla-responder --bind 192.0.2.10 --keychain /etc/ip-sla/keychain.json --port-range "
    "50001-50100\n"
    "  ip-sla-responder --netns blue --verbose";

struct CommandLine {
  std::string bind = "0.0.0.0";
  std::string port_range = "1024-65535";
  std::string password;
  std::string password_file;
  std::string keychain;
  std::string netns;
  ResponderOptions options;
};

std::string CheckPortRange(const std::string& text) {
  unsigned low = 0;
  unsigned high = 0;
  int end = 0;
  const int fields = std::sscanf(text.c_str(), "%5u-%5u%n", &low, &high, &end);
  const bool whole = fields == 2 && static_cast<std::size_t>(end) == text.size();
  if (whole && low >= 1 && low <= high && high <= 65535) return {};
  return "a port range is LOW-HIGH with 1 <= LOW <= HIGH <= 65535";
}

void AddOptions(CLI::App* app, CommandLine* line) {
  app->description(kDescription);
  app->footer(kFooter);
  app->add_option("--bind", line->bind, "Answer on this address only")
      ->type_name("ADDRESS")
      ->capture_default_str()
      ->check(CLI::ValidIPV4);
  app->add_option("--control-port", line->options.control_port,
                  "Port for requests; 0: any, see the output")
      ->type_name("PORT")
      ->capture_default_str();
  app->add_option("--port-range", line->port_range, "Ports that may be used for measurements")
      ->type_name("LOW-HIGH")
      ->capture_default_str()
      ->check(CLI::Validator(CheckPortRange, "", "port range"));
  auto* password =
      app->add_option("--password", line->password, "Key of authentication mode \"password\"");
  password->type_name("KEY");
  app->add_option("--password-file", line->password_file,
                  "The same, read from the first line of a file")
      ->type_name("FILE")
      ->excludes(password);
  app->add_option("--keychain", line->keychain,
                  "Keychain file, as the sender's, for mode \"keychain\"")
      ->type_name("FILE");
  app->add_flag("--allow-open", line->options.policy.allow_open,
                "Also serve requests without authentication");
  app->add_option("--netns", line->netns, "Run in this network namespace (see ip-netns(8))")
      ->type_name("NAME");
  app->add_option("--max-sessions", line->options.max_sessions, "Refuse more sessions at a time")
      ->type_name("COUNT")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000000));
  app->add_flag("--verbose", line->options.verbose,
                "Print opened sessions and refused requests too");
}

std::string FirstLine(const std::string& file) {
  std::ifstream in(file);
  std::string line;
  if (!std::getline(in, line)) throw std::runtime_error("cannot read a key from " + file);
  return line;
}

// The policy of the command line, or nothing when the keychain file cannot be read.
std::optional<AuthPolicy> LoadPolicy(const CommandLine& line, bool has_password) {
  AuthPolicy policy;
  policy.allow_open = line.options.policy.allow_open;
  if (!line.password_file.empty()) {
    policy.password = HexKeyToBytes(FirstLine(line.password_file));
  } else if (has_password) {
    policy.password = HexKeyToBytes(line.password);
  }
  if (!line.keychain.empty()) {
    KeychainStorage keys;
    const ConfigFile file = ReadConfigFile(line.keychain, kKeychainKey);
    if (file.fault != ConfigFileFault::kNone) return std::nullopt;
    static_cast<void>(ReadKeys(file.array, &keys));
    policy.keychain = std::move(keys);
  }
  return policy;
}

// For the rest of the process's life.
void EnterNamespace(const std::string& name) {
  try {
    SetNetworkNamespace(name);
  } catch (const std::exception&) {
    throw std::runtime_error("cannot enter the network namespace " + name + ": " +
                             std::strerror(errno));
  }
}

// A session may need a descriptor of its own.
void AllowManyDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);  // best effort: without it fewer sessions fit
}

void PrintLine(const std::string& text) {
  std::fputs((text + "\n").c_str(), stdout);
  std::fflush(stdout);
}

std::atomic<Responder*> signalled{nullptr};

void HandleSignal(int signal_number) {
  Responder* const responder = signalled.load();
  if (responder == nullptr) return;
  if (signal_number == SIGHUP) {
    responder->Reload();
  } else {
    responder->Stop();
  }
}

void InstallHandlers(Responder* responder) {
  signalled = responder;
  struct sigaction action {};
  action.sa_handler = HandleSignal;
  action.sa_flags = SA_RESTART;
  for (const int signal_number : {SIGTERM, SIGINT, SIGHUP})
    sigaction(signal_number, &action, nullptr);
}

int Serve(CommandLine line, bool has_password) {
  const auto load = [&line, has_password]() -> std::optional<AuthPolicy> {
    try {
      auto policy = LoadPolicy(line, has_password);
      if (!policy)
        std::fprintf(stderr, "ip-sla-responder: cannot read the keychain file %s\n",
                     line.keychain.c_str());
      return policy;
    } catch (const std::exception& error) {
      std::fprintf(stderr, "ip-sla-responder: %s\n", error.what());
      return std::nullopt;
    }
  };
  auto policy = load();
  if (!policy) return 1;
  ResponderOptions options = line.options;
  options.policy = *std::move(policy);
  inet_pton(AF_INET, line.bind.c_str(), &options.bind);
  unsigned low = 0;
  unsigned high = 0;
  std::sscanf(line.port_range.c_str(), "%5u-%5u", &low, &high);
  options.lowest_port = static_cast<std::uint16_t>(low);
  options.highest_port = static_cast<std::uint16_t>(high);

  AllowManyDescriptors();
  if (!line.netns.empty()) EnterNamespace(line.netns);
  Responder responder(std::move(options), PrintLine);
  InstallHandlers(&responder);
  responder.Run(load);
  signalled = nullptr;
  return 0;
}

int ParseAndServe(int argc, char** argv) {
  CommandLine line;
  CLI::App app("", "ip-sla-responder");
  AddOptions(&app, &line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;  // --help comes this way too
  }
  return Serve(std::move(line), app.count("--password") > 0);
}

}  // namespace
}  // namespace ipsla::responder

int main(int argc, char** argv) {
  try {
    return ipsla::responder::ParseAndServe(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ip-sla-responder: %s\n", error.what());
  } catch (...) {
    std::fputs("ip-sla-responder: failed for an unknown reason\n", stderr);
  }
  return 1;
}
