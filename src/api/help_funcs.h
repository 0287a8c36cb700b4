// The wall-clock watcher: when the clock is set, every test starts over.

#ifndef IPSLA_API_HELP_FUNCS_H_
#define IPSLA_API_HELP_FUNCS_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/system/error_code.hpp>

#include "env/descriptor.h"

namespace ipsla {

class Sender;

/// The running tests by task id, visited in ascending id.
using TestMap = std::map<std::uint16_t, boost::shared_ptr<Sender>>;

/// The clock descriptor and what its handler needs. Held by shared pointer, also by the pending
/// wait; once the descriptor is closed, a handler still queued touches nothing else.
struct ClockWatch {
  ClockWatch(boost::asio::io_context& context, const TestMap& running);

  /// A timer of the real-time clock: readable when that was set.
  boost::asio::posix::stream_descriptor descriptor;
  boost::asio::steady_timer
      pause;  ///< before waiting again after a failure that might repeat at once
  /// Where its handlers run, and whose tests start anew.
  boost::asio::io_context& service;
  const TestMap& tests;
  // Replaced by tests: no test sets the machine's clock.
  std::function<ssize_t(int fd, void* buffer, std::size_t size)> read;  ///< read(2)
  std::function<void(boost::asio::io_context&)> kick;                   ///< StartKeepAlive
};

/// The timer descriptor, armed never to expire. Throws std::runtime_error "Create timer fd
/// failed" or "Set time for timer fd failed".
[[nodiscard]] Descriptor CreateClockDescriptor();

/// Waits until the descriptor is readable; TimeChanged follows.
void WaitForClockChange(const std::shared_ptr<ClockWatch>& watch);

/// The end of a wait. Kicks the keep-alive, reads the 8 bytes of the expiry count and, when the
/// read says that the clock was set (ECANCELED), restarts every test. Waits again whatever
/// happened, unless the descriptor was closed. Threads: the service thread.
void TimeChanged(const boost::system::error_code& error, const std::shared_ptr<ClockWatch>& watch);

/// Closes the descriptor and ends the wait.
void CloseClockWatch(ClockWatch& watch);

}  // namespace ipsla

#endif  // IPSLA_API_HELP_FUNCS_H_
