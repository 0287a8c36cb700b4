// ip-sla-responder: the other end of UDP measurements, for labs, demonstrations and tests.

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "env/network_namespace.h"
#include "responder/command_line.h"
#include "responder/keys.h"
#include "responder/line_output.h"
#include "responder/responder.h"

namespace ipsla::responder {
namespace {

// Nobody has to read it: a complaint about a new key must not keep the probes waiting.
void Complain(const std::string& text) {
  static LineOutput errors(STDERR_FILENO);
  errors.Write("ip-sla-responder: " + text);
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

// Of the thread that answers probes. Best effort: what it is for is told apart in the statistics.
void UseRealTime(int priority) {
  sched_param parameters{};
  parameters.sched_priority = priority;
  if (sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameters) == 0) return;
  Complain(std::string("no real-time priority: ") + std::strerror(errno));
}

// The keys, or nothing after a complaint.
std::optional<AuthPolicy> LoadPolicy(const KeySources& sources) {
  try {
    return ReadPolicy(sources, Complain);
  } catch (const std::exception& error) {
    Complain(error.what());
    return std::nullopt;
  }
}

std::atomic<Responder*> signalled{nullptr};

void HandleSignal(int signal_number) {
  Responder* const responder = signalled.load();
  if (responder == nullptr) return;
  if (signal_number == SIGHUP) {
    responder->Reload();
  } else if (signal_number == SIGUSR1) {
    responder->PrintStatistics();
  } else {
    responder->Stop();
  }
}

void InstallHandlers(Responder* responder) {
  signalled = responder;
  struct sigaction action {};
  action.sa_handler = HandleSignal;
  action.sa_flags = SA_RESTART;
  for (const int signal_number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) {
    sigaction(signal_number, &action, nullptr);
  }
}

int Serve(CommandLine line) {
  // Who reads the output may go before us.
  std::signal(SIGPIPE, SIG_IGN);
  auto policy = LoadPolicy(line.keys);
  if (!policy) return 1;
  line.options.policy = *std::move(policy);
  AllowManyDescriptors();
  if (!line.netns.empty()) EnterNamespace(line.netns);
  LineOutput output(STDOUT_FILENO);
  Responder responder(std::move(line.options),
                      [&output](const std::string& text) { output.Write(text); });
  InstallHandlers(&responder);
  if (line.real_time_priority > 0) UseRealTime(line.real_time_priority);
  responder.Run([&line] { return LoadPolicy(line.keys); });
  signalled = nullptr;
  return 0;
}

int Main(int argc, char** argv) {
  int status = 0;
  auto line = ReadCommandLine(argc, argv, &status);
  return line ? Serve(*std::move(line)) : status;
}

}  // namespace
}  // namespace ipsla::responder

int main(int argc, char** argv) {
  try {
    return ipsla::responder::Main(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ip-sla-responder: %s\n", error.what());
  } catch (...) {
    std::fputs("ip-sla-responder: failed for an unknown reason\n", stderr);
  }
  return 1;
}
