// The keep-alive as an object, with its periods given: StartKeepAlive holds the one of the process.

#ifndef IPSLA_ENV_KEEP_ALIVE_TIMER_H_
#define IPSLA_ENV_KEEP_ALIVE_TIMER_H_

#include <array>
#include <chrono>
#include <cstddef>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "platform/keepalive.h"

namespace ipsla {

/// When the watchdog is told that the daemon lives.
struct KeepAlivePeriods {
  std::chrono::milliseconds first{10000};   ///< from the creation to the first signal
  std::chrono::milliseconds restart{5000};  ///< from a later start to the next signal
  std::chrono::milliseconds next{10000};    ///< from one signal to the next
};

/// Must outlive the run of its context. Threads: one at a time, as StartKeepAlive.
class KeepAliveTimer {
 public:
  /// Starts nothing yet. `service` must outlive the timer.
  KeepAliveTimer(boost::asio::io_context& service, const KeepAlivePeriods& periods);

  /// As StartKeepAlive.
  void Start();

  /// As SignalKeepAlive.
  void SignalWhenDue();

 private:
  // A record of the device's library, which alone knows what is in it.
  struct Record {
    alignas(std::max_align_t) std::array<unsigned char, KEEPALIVE_RECORD_BYTES> bytes{};
  };

  // Until the next signal is due.
  void Wait();

  // Constant.
  const KeepAlivePeriods periods_;
  boost::asio::steady_timer
      timer_;  // steady: a clock that is set must not delay the watchdog's signal
  // The first signal is out.
  bool is_announced_ = false;
  std::chrono::steady_clock::time_point last_signal_;  // or the announcement
  // What the device's library keeps from one signal to the next.
  Record watchdog_;
  Record signal_;
};

}  // namespace ipsla

#endif  // IPSLA_ENV_KEEP_ALIVE_TIMER_H_
