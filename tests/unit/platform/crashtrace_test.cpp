// The stand-in for the crash-trace library: every test crashes a child process.

#include "platform/crashtrace.h"

#include <unistd.h>

#include <array>
#include <csignal>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "log/signal_stack.h"

namespace ipsla::test {
namespace {

void Prepare() {
  backtrace_set_program_name("crash-tester");
  backtrace_open_console();
  backtrace_install_signal_handlers();
}

std::string TraceOf(int number, const std::string& name) {
  return "crash-tester: thread [0-9]+ ended by signal " + std::to_string(number) + " \\(" + name +
         "\\), back-trace:\n.*ipsla-unit-tests";
}

struct Crash {
  int number;
  const char* name;
};

class CrashTraceTest : public testing::TestWithParam<Crash> {};

TEST_P(CrashTraceTest, PrintsTheBackTraceAndDiesOfTheSignal) {
  const auto [number, name] = GetParam();
  const auto crash = [number = number] {
    Prepare();
    raise(number);
  };
  EXPECT_EXIT(crash(), testing::KilledBySignal(number), TraceOf(number, name));
}

INSTANTIATE_TEST_SUITE_P(FatalSignals, CrashTraceTest,
                         testing::Values(Crash{SIGSEGV, "SIGSEGV"}, Crash{SIGBUS, "SIGBUS"},
                                         Crash{SIGFPE, "SIGFPE"}, Crash{SIGILL, "SIGILL"},
                                         Crash{SIGABRT, "SIGABRT"}, Crash{SIGSYS, "SIGSYS"}),
                         [](const auto& crash) { return std::string(crash.param.name); });

TEST(CrashTraceConsoleTest, ReportsTheCrashOfAnotherThread) {
  const auto crash = [] {
    Prepare();
    std::thread([] {
      // The result is kept so that the call is no jump, which would leave no frame of this program
      // on the stack.
      [[maybe_unused]] const volatile int result = raise(SIGSEGV);
    }).join();
  };
  EXPECT_EXIT(crash(), testing::KilledBySignal(SIGSEGV), TraceOf(SIGSEGV, "SIGSEGV"));
}

// Returns only for a depth that is never reached, which no compiler can know.
int OverflowStack(int depth) {
  std::array<char, 4096> frame{};
  volatile char* const last = &frame.back();
  *last = static_cast<char>(depth);
  return depth < 0 ? 0 : OverflowStack(depth + 1) + *last;
}

TEST(CrashTraceConsoleTest, ReportsAThreadWhoseStackIsUsedUp) {
  const auto crash = [] {
    Prepare();
    std::thread([] {
      const log_internal::SignalStack signal_stack;
      [[maybe_unused]] const volatile int result = OverflowStack(1);
    }).join();
  };
  EXPECT_EXIT(crash(), testing::KilledBySignal(SIGSEGV), TraceOf(SIGSEGV, "SIGSEGV"));
}

TEST(CrashTraceConsoleTest, KeepsTheConsoleThatWasOpened) {
  const auto crash = [] {
    Prepare();
    close(STDERR_FILENO);
    raise(SIGABRT);
  };
  EXPECT_EXIT(crash(), testing::KilledBySignal(SIGABRT), TraceOf(SIGABRT, "SIGABRT"));
}

TEST(CrashTraceConsoleTest, CutsALongProgramName) {
  const auto crash = [] {
    Prepare();
    backtrace_set_program_name(std::string(1000, 'n').c_str());
    raise(SIGABRT);
  };
  EXPECT_EXIT(crash(), testing::KilledBySignal(SIGABRT), "^" + std::string(255, 'n') + ": thread ");
}

}  // namespace
}  // namespace ipsla::test
