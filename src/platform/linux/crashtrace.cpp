// Stand-in for the device's crash-trace library: backtrace(3) to standard error.
//
// The handler runs in a process that is already broken: it allocates nothing, takes no lock and
// formats by hand.

#include "platform/crashtrace.h"

#include <execinfo.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>

namespace {

struct FatalSignal {
  int number;
  const char* name;
};
constexpr std::array<FatalSignal, 6> kFatalSignals = {{{SIGSEGV, "SIGSEGV"},
                                                       {SIGBUS, "SIGBUS"},
                                                       {SIGFPE, "SIGFPE"},
                                                       {SIGILL, "SIGILL"},
                                                       {SIGABRT, "SIGABRT"},
                                                       {SIGSYS, "SIGSYS"}}};

constexpr int kMaxFrames = 64;
constexpr std::size_t kAlternateStackBytes = 65536;

std::array<char, 256> program_name{};
std::array<char, kAlternateStackBytes> alternate_stack;
std::atomic<int> console{STDERR_FILENO};
std::atomic<long> crashed_thread{0};

void Write(const char* text, std::size_t length) {
  while (length > 0) {
    const ssize_t written = write(console, text, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    length -= static_cast<std::size_t>(written);
  }
}

void WriteText(const char* text) {
  Write(text, std::strlen(text));
}

void WriteNumber(unsigned long number) {
  std::array<char, 24> digits{};
  std::size_t begin = digits.size();
  do {
    digits.at(--begin) = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0);
  Write(&digits.at(begin), digits.size() - begin);
}

void RaiseWithDefaultAction(int number) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(number, &action, nullptr);
  // Blocked while its handler runs: delivered when the handler returns at the latest.
  raise(number);
}

void PrintBacktrace(int number, long thread) {
  WriteText(program_name.front() != '\0' ? program_name.data() : "process");
  WriteText(": thread ");
  WriteNumber(static_cast<unsigned long>(thread));
  WriteText(" ended by signal ");
  WriteNumber(static_cast<unsigned long>(number));
  for (const FatalSignal& signal : kFatalSignals) {
    if (signal.number != number) continue;
    WriteText(" (");
    WriteText(signal.name);
    WriteText(")");
  }
  WriteText(", back-trace:\n");
  std::array<void*, kMaxFrames> frames{};
  const int count = backtrace(frames.data(), kMaxFrames);
  backtrace_symbols_fd(frames.data(), count, console);
}

void HandleFatalSignal(int number) {
  const long thread = syscall(SYS_gettid);
  long nobody = 0;
  if (crashed_thread.compare_exchange_strong(nobody, thread)) {
    PrintBacktrace(number, thread);
  } else if (nobody != thread) {
    // Another thread is printing its trace and then ends the process: do not cut it short.
    while (true) pause();
  }
  RaiseWithDefaultAction(number);
}

}  // namespace

void backtrace_set_program_name(const char* name) {
  std::strncpy(program_name.data(), name, program_name.size() - 1);
}

void backtrace_open_console(void) {
  // A descriptor of our own, so that traces still come out when somebody redirects standard error
  // later.
  const int fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (fd < 0) return;
  const int old = console.exchange(fd);
  if (old != STDERR_FILENO) close(old);
}

void backtrace_install_signal_handlers(void) {
  // The first call loads the unwinder, which a handler must not do.
  std::array<void*, 1> frame{};
  backtrace(frame.data(), static_cast<int>(frame.size()));

  // A stack overflow of this thread can only be reported from another stack.
  stack_t current{};
  if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) != 0) {
    stack_t own{};
    own.ss_sp = alternate_stack.data();
    own.ss_size = alternate_stack.size();
    sigaltstack(&own, nullptr);
  }

  struct sigaction action {};
  action.sa_handler = HandleFatalSignal;
  action.sa_flags = SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (const FatalSignal& signal : kFatalSignals) sigaction(signal.number, &action, nullptr);
}
