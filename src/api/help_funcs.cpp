#include "api/help_funcs.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <limits>
#include <stdexcept>

#include <boost/asio/error.hpp>

#include "env/keep_alive.h"
#include "log/log.h"
#include "sender/sender.h"

namespace ipsla {
namespace {

constexpr std::chrono::seconds kPauseAfterFailure{1};

void WaitAfterPause(const std::shared_ptr<ClockWatch>& watch) {
  watch->pause.expires_after(kPauseAfterFailure);
  watch->pause.async_wait([watch](const boost::system::error_code& error) {
    if (!error && watch->descriptor.is_open()) WaitForClockChange(watch);
  });
}

}  // namespace

ClockWatch::ClockWatch(boost::asio::io_context& context, const TestMap& running)
    : descriptor(context),
      pause(context),
      service(context),
      tests(running),
      read(::read),
      kick(StartKeepAlive) {}

Descriptor CreateClockDescriptor() {
  Descriptor timer(timerfd_create(CLOCK_REALTIME, 0));
  if (!timer) throw std::runtime_error("Create timer fd failed");
  itimerspec never{};
  static_assert(sizeof never.it_value.tv_sec == sizeof(std::int64_t));
  never.it_value.tv_sec = std::numeric_limits<std::int64_t>::max();
  // Not absolute: kept-behaviours.md#whether-a-set-clock-is-noticed-is-up-to-the-kernel
  if (timerfd_settime(timer.Get(), TFD_TIMER_CANCEL_ON_SET, &never, nullptr) < 0) {
    throw std::runtime_error("Set time for timer fd failed");
  }
  return timer;
}

void WaitForClockChange(const std::shared_ptr<ClockWatch>& watch) {
  watch->descriptor.async_wait(
      boost::asio::posix::stream_descriptor::wait_read,
      [watch](const boost::system::error_code& error) { TimeChanged(error, watch); });
}

void TimeChanged(const boost::system::error_code& error, const std::shared_ptr<ClockWatch>& watch) {
  if (error == boost::asio::error::operation_aborted || !watch->descriptor.is_open()) return;
  if (error) {
    // A wait that fails at once would fail again at once.
    WaitAfterPause(watch);
    return;
  }
  watch->kick(watch->service);
  std::uint64_t expirations = 0;
  // The io library has made the descriptor non-blocking: a wake-up without anything to read fails
  // here with EAGAIN and does not stop the service thread.
  const ssize_t bytes =
      watch->read(watch->descriptor.native_handle(), &expirations, sizeof expirations);
  if (bytes >= 0) {
    LOG_DEBUG(0, "Timer expires %lu times!", static_cast<unsigned long>(expirations));
  } else if (errno == ECANCELED) {
    LOG_DEBUG(0, "Time changed... Restart tests...");
    for (const auto& [id, test] : watch->tests) test->Restart();
  } else {
    LOG_DEBUG(0, "Read from timerfd failed: %s", std::strerror(errno));
    // What was not read may leave the descriptor readable.
    WaitAfterPause(watch);
    return;
  }
  WaitForClockChange(watch);
}

void CloseClockWatch(ClockWatch& watch) {
  boost::system::error_code ignored;
  watch.descriptor.close(ignored);
  watch.pause.cancel();
}

}  // namespace ipsla
