// Start-up of the daemon. The order of the steps is part of its behaviour.

#include <sched.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/thread/thread.hpp>
#include <openssl/crypto.h>

#include "api/api_sender.h"
#include "api/creation_note.h"
#include "env/keep_alive.h"
#include "env/process.h"
#include "log/log.h"
#include "log/signal_stack.h"
#include "main/command_line.h"
#include "platform/crashtrace.h"
#include "platform/logsvc.h"

namespace {

constexpr int kRealTimePriority = 99;

// For so long an abnormal end waits for the log.
constexpr std::chrono::seconds kLastWords{5};

std::terminate_handler usual_terminate = nullptr;

// What led to the end is among the last lines, and those are still queued.
[[noreturn]] void WriteLogAndTerminate() {
  ipsla::ReportFailedCreation();
  ipsla::FlushLog(kLastWords);
  usual_terminate();
  std::abort();
}

// Whoever starts the daemon by hand, and the service manager's journal, hear it from here; the log
// has its own texts.
void Complain(const std::string& text) {
  if (!text.empty()) std::fprintf(stderr, "ip-sla-sender: %s\n", text.c_str());
}

std::string RootHint() {
  return ipsla::CheckRootPriv() == -1 ? "; it has to be started as root" : "";
}

[[noreturn]] void EndWith(const std::string& text) {
  Complain(text);
  std::exit(EXIT_FAILURE);
}

// Before real-time scheduling: the log's writer thread stays an ordinary one.
void OpenLog() {
  try {
    ipsla::StartLog();
    ipsla::OpenLogFile(0);
  } catch (const std::exception& exception) {
    // There is no log to say it in.
    const std::string reason = std::strerror(errno);
    EndWith("no log in /var/log/ip-sla: " + std::string(exception.what()) + ": " + reason +
            RootHint());
  }
}

void SwitchToRealTime() {
  sched_param parameters{};
  parameters.sched_priority = kRealTimePriority;
  if (sched_setscheduler(0, SCHED_RR, &parameters) == -1) {
    const std::string reason = std::strerror(errno);
    LOG_DEBUG(0, "sched_setscheduler");
    EndWith("real-time scheduling is refused: " + reason + RootHint());
  }
}

ipsla::CommandLine ReadCommandLine(int argc, char* argv[]) {
  ipsla::CommandLine line = ipsla::ParseCommandLine(argc, argv);
  switch (line.action) {
    case ipsla::CommandLine::Action::kPrintVersion:
      std::printf("%s", ipsla::VersionBanner().c_str());
      std::exit(EXIT_SUCCESS);
    case ipsla::CommandLine::Action::kPrintUsage:
      std::printf("%s", ipsla::UsageText(argv[0]).c_str());
      std::exit(EXIT_FAILURE);
    case ipsla::CommandLine::Action::kRun:
      break;
  }
  Complain(ipsla::SurplusText(line));
  return line;
}

// Starts the API thread and the worker threads and waits until a signal has ended the API thread.
void RunMainLoop(boost::asio::io_context& service, ipsla::ApiSender& sender) {
  boost::asio::signal_set signals(service, SIGTERM, SIGINT);
  signals.async_wait([&service](const boost::system::error_code& error, int) {
    if (!error) service.stop();
  });
  boost::thread::attributes attributes;
  attributes.set_stack_size(ipsla::ThreadStackBytes());
  boost::thread api_thread(attributes, [&service] {
    const ipsla::log_internal::SignalStack signal_stack;
    service.run();
  });
  ipsla::SetCpuNum(api_thread.native_handle(), 0);
  sender.StartMainLoop();
  api_thread.join();
}

}  // namespace

// What throws from here on ends the process abnormally, with its log written and a crash trace:
// kept-behaviours.md#a-task-that-cannot-be-set-up-ends-the-daemon
int main(int argc, char* argv[]) {  // NOLINT(bugprone-exception-escape): see above
  // The library would otherwise take itself apart at exit, under threads that still use it.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);

  // Neither the service context nor the central object is ever destroyed: the process ends through
  // exit(3).
  static auto& service = *new boost::asio::io_context();

  backtrace_set_program_name(argv[0]);
  backtrace_open_console();
  backtrace_install_signal_handlers();
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  ipsla::AllowManyDescriptors();
  OpenLog();
  usual_terminate = std::set_terminate(WriteLogAndTerminate);
  SwitchToRealTime();
  const ipsla::CommandLine line = ReadCommandLine(argc, argv);

  static auto& sender = *new ipsla::ApiSender(service, line.tasks_file, line.keychain_file);
  if (ipsla::CheckRootPriv() == -1) {
    LOG_DEBUG(0, "CheckRootPriv() failed: no root privileges");
    EndWith("no root privileges" + RootHint());
  }
  if (sender.ParseConfigsAndStart() == -1) {
    const std::string missing = ipsla::MissingText(line);
    EndWith(missing.empty() ? sender.FileFault() : missing);
  }
  if (!sender.CreationFault().empty()) {
    Complain(sender.CreationFault() + "; the tests run all the same");
  }
  ipsla::StartKeepAlive(service);
  RunMainLoop(service, sender);

  // The worker threads end here, so that none of them runs into what exit(3) takes apart.
  sender.Stop();
  SYSLOG_close();
  std::exit(EXIT_SUCCESS);
}
