// ip-sla-exporter: the daemon's results for Prometheus, and a page to look at.

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>
#include <boost/asio/signal_set.hpp>
#include <fmt/format.h>

#include "client/usage_fault.h"
#include "exporter/http_server.h"
#include "exporter/listener.h"

namespace ipsla::exporter {
namespace {

constexpr const char* kAbout =
    "Serves the results of this machine's IP SLA sender over HTTP: metrics for Prometheus and a "
    "page for people.\n"
    "It asks the daemon and changes nothing; it needs no privileges.";
constexpr const char* kFooter =
    "There is neither encryption nor authentication: leave it on the loopback interface and put a "
    "proxy in front.\n"
    "Exit status: 0 stopped by SIGTERM or SIGINT; 1 it cannot listen; 3 a wrong command line.";

enum ExitStatus : int { kExitStopped = 0, kExitFault = 1, kExitUsage = 3 };

struct Arguments {
  std::string listen = "127.0.0.1:9815";
  CollectorOptions collector;
  double interval_s = 5;
  double timeout_s = 5;
  std::size_t history_mib = 64;
};

std::chrono::milliseconds Milliseconds(double seconds) {
  constexpr double kPerSecond = 1000;
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * kPerSecond));
}

std::string ValidateListen(const std::string& text) {
  return ParseListenTarget(text) ? ""
                                 : "not ADDRESS:PORT, [IPV6-ADDRESS]:PORT or fd:NUMBER: " + text;
}

void AddOptions(CLI::App* app, Arguments* a) {
  constexpr double kLongest = 3600;
  constexpr std::size_t kMostMib = 65536;
  app->set_version_flag("-V,--version", "ip-sla-exporter " IPSLA_VERSION);
  app->add_option("--listen", a->listen,
                  "Where to serve; [::1]:9815 for IPv6, fd:3 for an inherited listening socket")
      ->type_name("ADDRESS:PORT")
      ->check(CLI::Validator(ValidateListen, "", "listen"))
      ->capture_default_str();
  app->add_option("--port", a->collector.api_port, "UDP port of the daemon on 127.0.0.1")
      ->capture_default_str();
  app->add_option("--timeout", a->timeout_s, "Longest wait for the daemon's whole answer")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.01, kLongest))
      ->capture_default_str();
  app->add_option("--interval", a->interval_s,
                  "Shortest time between questions that nobody's request caused")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, kLongest))
      ->capture_default_str();
  app->add_option("--history-memory", a->history_mib,
                  "Memory for the last 24 hours of results; 0 keeps none")
      ->type_name("MIB")
      ->check(CLI::Range(static_cast<std::size_t>(0), kMostMib))
      ->capture_default_str();
  app->add_option("--tasks", a->collector.tasks_file,
                  "The daemon's tasks file, for what its API does not tell: DSCP and period")
      ->type_name("FILE");
  app->footer(kFooter);
}

int Serve(Arguments* arguments) {
  arguments->collector.timeout = Milliseconds(arguments->timeout_s);
  arguments->collector.interval = Milliseconds(arguments->interval_s);
  arguments->collector.history_bytes = arguments->history_mib << 20U;
  boost::asio::io_context context(1);
  boost::asio::signal_set signals(context, SIGINT, SIGTERM);
  signals.async_wait([&context](const boost::system::error_code&, int) { context.stop(); });
  Collector collector(arguments->collector);
  const Routes routes(&collector);
  const HttpServer server(&context, Listen(&context, *ParseListenTarget(arguments->listen)),
                          &routes);
  fmt::print("ip-sla-exporter: serving on http://{}/\n", EndpointText(server.LocalEndpoint()));
  std::fflush(stdout);
  context.run();
  return kExitStopped;
}

/// What is wrong with the command line: as the library says it, but for words too many.
std::string UsageFault(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> words = app.remaining();
  if (words.empty() || error.get_exit_code() != static_cast<int>(CLI::ExitCodes::ExtrasError)) {
    return error.what();
  }
  std::vector<std::string> options;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      options.push_back("--" + name);
    }
  }
  return client::SurplusText(words, {}, options);
}

int ParseAndServe(int argc, char** argv) {
  CLI::App app(kAbout, "ip-sla-exporter");
  Arguments arguments;
  AddOptions(&app, &arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return app.exit(error);  // help and version
    }
    fmt::print(stderr, "ip-sla-exporter: {}\nRun with --help for more information.\n",
               UsageFault(app, error));
    return kExitUsage;
  }
  try {
    return Serve(&arguments);
  } catch (const boost::system::system_error& error) {
    fmt::print(stderr, "ip-sla-exporter: cannot serve on {}: {}\n", arguments.listen,
               error.code().message());
    return kExitFault;
  }
}

}  // namespace
}  // namespace ipsla::exporter

int main(int argc, char** argv) {
  try {
    return ipsla::exporter::ParseAndServe(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ip-sla-exporter: %s\n", error.what());
  } catch (...) {
    std::fputs("ip-sla-exporter: failed for an unknown reason\n", stderr);
  }
  return ipsla::exporter::kExitFault;
}
