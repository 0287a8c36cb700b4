// Stand-in for the device's system-log library: datagrams to /dev/log in the form of syslog(3).
//
// Unlike syslog(3) it never waits, neither for whoever reads there nor for another thread: a
// measurement must not stop because a log service does. What cannot be sent at once is counted, and
// the count goes before the next message that gets through.

#include "platform/logsvc.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

namespace {

// While nobody listens, messages are only counted for so long between two attempts.
constexpr std::int64_t kRetryMs = 100;

// Room for what one run of a test reports at once, as long as it is read in time.
constexpr int kSendBuffer = 8 * 1024 * 1024;

// Most messages fit; longer ones take memory for the time of the call.
constexpr std::size_t kUsualBytes = 2048;

// Opened with the first message, open as long as the process. Its connection comes and goes.
std::atomic<int> log_socket{-1};
std::atomic<std::int64_t> quiet_until_ms{0};
std::atomic<std::uint64_t> lost_messages{0};

std::int64_t NowMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1'000'000;
}

int Socket() {
  const int existing = log_socket;
  if (existing >= 0) return existing;
  const int opened = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (opened < 0) return -1;
  if (setsockopt(opened, SOL_SOCKET, SO_SNDBUFFORCE, &kSendBuffer, sizeof kSendBuffer) != 0) {
    setsockopt(opened, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  }
  int nobodys = -1;
  if (log_socket.compare_exchange_strong(nobodys, opened)) return opened;
  close(opened);  // another thread was first
  return nobodys;
}

bool Connect(int fd) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// A log service that was started anew has another socket; its full queue is no reason to look for
// one.
bool IsWithoutListener(int error) {
  return error != EAGAIN && error != EWOULDBLOCK && error != ENOBUFS && error != ENOMEM &&
         error != EMSGSIZE && error != EINTR;
}

bool Send(const char* text, std::size_t length) {
  const int fd = Socket();
  if (fd >= 0) {
    if (send(fd, text, length, MSG_NOSIGNAL) >= 0) return true;
    if (!IsWithoutListener(errno)) return false;
    if (Connect(fd) && send(fd, text, length, MSG_NOSIGNAL) >= 0) return true;
    if (!IsWithoutListener(errno)) return false;
  }
  quiet_until_ms = NowMs() + kRetryMs;
  return false;
}

// "Nov 22 08:05:00 program[123]: ", made once a second by each thread.
class Header {
 public:
  const char* Text(std::time_t now) {
    if (now != second_) Make(now);
    return text_.data();
  }

 private:
  void Make(std::time_t now) {
    static constexpr std::array<const char*, 12> kMonths = {
        "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tzset();  // the machine may have moved to another time zone
    tm local{};
    localtime_r(&now, &local);
    std::snprintf(text_.data(), text_.size(), "%s %2d %02d:%02d:%02d %s[%ld]: ",
                  kMonths.at(static_cast<std::size_t>(local.tm_mon)), local.tm_mday, local.tm_hour,
                  local.tm_min, local.tm_sec, program_invocation_short_name,
                  static_cast<long>(getpid()));
    second_ = now;
  }

  std::time_t second_ = -1;
  std::array<char, 320> text_{};  // the longest name of a file and the rest
};
thread_local Header header;

// One datagram of at most `size` bytes, its terminating zero included. Returns the length that it
// needs without that zero.
std::size_t FormatMessage(char* buffer, std::size_t size, int severity, const char* format,
                          va_list arguments) {
  const int begin = std::snprintf(buffer, size, "<%d>%s", LOG_MAKEPRI(LOG_USER, LOG_PRI(severity)),
                                  header.Text(std::time(nullptr)));
  const auto used = static_cast<std::size_t>(begin);
  const int length = std::vsnprintf(buffer + used, size - used, format, arguments);
  return used + static_cast<std::size_t>(length < 0 ? 0 : length);
}

// False when it has not gone through.
bool SendMessage(int severity, const char* format, va_list arguments) {
  std::array<char, kUsualBytes> usual;
  va_list again;
  va_copy(again, arguments);
  const std::size_t length = FormatMessage(usual.data(), usual.size(), severity, format, arguments);
  bool is_sent = false;
  if (length < usual.size()) {
    is_sent = Send(usual.data(), length);
  } else if (const std::unique_ptr<char[]> large{new (std::nothrow) char[length + 1]}) {
    FormatMessage(large.get(), length + 1, severity, format, again);
    is_sent = Send(large.get(), length);
  }
  va_end(again);
  return is_sent;
}

bool SendText(int severity, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const bool is_sent = SendMessage(severity, format, arguments);
  va_end(arguments);
  return is_sent;
}

// True when all losses have been told.
bool TellLosses() {
  const std::uint64_t lost = lost_messages.exchange(0);
  if (lost == 0) return true;
  const bool is_told =
      SendText(LOG_WARNING, "%llu messages lost", static_cast<unsigned long long>(lost));
  if (!is_told) lost_messages += lost;
  return is_told;
}

}  // namespace

// The device's service keeps messages apart by module and flag; /dev/log has no place for either.
void SYSLOG_message(int /*module*/, int /*flag*/, int severity, const char* format, ...) {
  const int saved_errno = errno;
  bool is_sent = false;
  if (NowMs() >= quiet_until_ms && TellLosses()) {
    va_list arguments;
    va_start(arguments, format);
    is_sent = SendMessage(severity, format, arguments);
    va_end(arguments);
  }
  if (!is_sent) ++lost_messages;
  errno = saved_errno;
}

void SYSLOG_close(void) {
  // The descriptor stays: another thread may be sending.
  sockaddr nobody{};
  nobody.sa_family = AF_UNSPEC;
  const int fd = log_socket;
  if (fd >= 0) static_cast<void>(connect(fd, &nobody, sizeof nobody));
  quiet_until_ms = 0;
}
