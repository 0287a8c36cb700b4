// What a log line costs: the thread that logs it, and the whole process (file writer included).
//
// Files go to a directory of their own below /tmp. The system log is the stand-in library's, with
// the listener that each benchmark names: it gets a private /dev, for which root is needed.

#include <dlfcn.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>

#include "log/format.h"
#include "log/logger.h"

namespace {

constexpr std::uint16_t kTest = 1;
// Far below what the logger's queue takes, so that no line is dropped.
constexpr int kBurst = 1000;

class LogDirectory {
 public:
  LogDirectory() {
    if (mkdtemp(name_.data()) == nullptr) std::abort();
  }
  ~LogDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(name_.data(), ignored);
  }
  LogDirectory(const LogDirectory&) = delete;
  LogDirectory& operator=(const LogDirectory&) = delete;

  [[nodiscard]] std::string Path() const { return std::string(name_.data()) + "/"; }

 private:
  std::array<char, 32> name_{"/tmp/ipsla-bench-XXXXXX"};
};

// As Log() of log/log.h does it.
[[gnu::format(printf, 2, 3)]] void LogTo(ipsla::Logger& logger, const char* format, ...) {
  if (!logger.IsOpen(kTest)) return;
  va_list arguments;
  va_start(arguments, format);
  const ipsla::FormattedText text(format, arguments);
  va_end(arguments);
  logger.Write(kTest, text.View());
}

// A line as the metrics write one for every probe.
void LogProbe(ipsla::Logger& logger, unsigned number) {
  LogTo(logger, "Packet #%u: rtt %f ms, state %d", number, 1.25 + number * 0.001, 2);
}

// Bursts of lines as at the end of a run, written before the next burst.
void LogFileBurst(benchmark::State& state) {
  const LogDirectory directory;
  ipsla::Logger logger(directory.Path());
  logger.OpenLogFile(kTest);
  for (auto _ : state) {
    for (unsigned i = 0; i < kBurst; ++i) LogProbe(logger, i);
    logger.Flush(std::chrono::seconds(20));
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}

// One line, then a pause, as from a test that sends a probe now and then; the call alone is timed.
void LogFilePaced(benchmark::State& state) {
  const LogDirectory directory;
  ipsla::Logger logger(directory.Path());
  logger.OpenLogFile(kTest);
  unsigned number = 0;
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    LogProbe(logger, number++);
    const auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

// A line of a test whose file is not open.
void LogFileClosed(benchmark::State& state) {
  const LogDirectory directory;
  ipsla::Logger logger(directory.Path());
  unsigned number = 0;
  for (auto _ : state) LogProbe(logger, number++);
}

// The stand-in's own function, past the benchmarks' quiet one.
using Message = void (*)(int, int, int, const char*, ...);

Message SystemLogFunction() {
  void* const library = dlopen("liblogsvc.so", RTLD_NOW | RTLD_LOCAL);
  return library == nullptr ? nullptr : reinterpret_cast<Message>(dlsym(library, "SYSLOG_message"));
}

// A private /dev, with a listener that takes every datagram, or with none.
class PrivateDevices {
 public:
  explicit PrivateDevices(bool has_listener) {
    if (unshare(CLONE_NEWNS) != 0) return;
    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    if (mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) return;
    is_ready_ = true;
    if (!has_listener) return;
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    is_ready_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    reader_ = std::thread([fd = fd_] {
      std::array<char, 2048> buffer{};
      while (recv(fd, buffer.data(), buffer.size(), 0) > 0) continue;
    });
  }
  ~PrivateDevices() {
    if (!reader_.joinable()) return;
    shutdown(fd_, SHUT_RD);
    reader_.join();
    close(fd_);
  }
  PrivateDevices(const PrivateDevices&) = delete;
  PrivateDevices& operator=(const PrivateDevices&) = delete;

  [[nodiscard]] bool IsReady() const { return is_ready_; }

 private:
  bool is_ready_ = false;
  int fd_ = -1;
  std::thread reader_;
};

void MeasureSystemLog(benchmark::State& state, bool has_listener) {
  static std::optional<PrivateDevices> devices;
  if (state.thread_index() == 0) devices.emplace(has_listener);
  const Message message = SystemLogFunction();
  if (message == nullptr) state.SkipWithError("there is no liblogsvc.so");
  unsigned number = 0;
  for (auto _ : state) {
    message(59, 1, 7, "%%%s-%s-%s: %s:%d:%s(): Packet #%u: rtt %f ms, state %d", "IP_SLA", "D",
            "DEBUG", "log_bench.cpp", __LINE__, __func__, number, 1.25 + number * 0.001, 2);
    ++number;
  }
  if (state.thread_index() == 0) {
    if (!devices->IsReady()) state.SkipWithError("a private /dev needs root");
    devices.reset();
  }
}

void SystemLogWithListener(benchmark::State& state) {
  MeasureSystemLog(state, true);
}

void SystemLogWithoutListener(benchmark::State& state) {
  MeasureSystemLog(state, false);
}

BENCHMARK(LogFileBurst)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(LogFilePaced)->MeasureProcessCPUTime()->UseManualTime()->Iterations(5000);
BENCHMARK(LogFileClosed);
BENCHMARK(SystemLogWithListener)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(SystemLogWithoutListener)->MeasureProcessCPUTime()->UseRealTime()->Threads(1)->Threads(4);

}  // namespace
