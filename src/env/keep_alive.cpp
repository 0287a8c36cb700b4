#include "env/keep_alive.h"

#include "env/keep_alive_timer.h"

namespace ipsla {

KeepAliveTimer::KeepAliveTimer(boost::asio::io_context& service, const KeepAlivePeriods& periods)
    : periods_(periods), timer_(service, periods.first) {}

void KeepAliveTimer::Start() {
  if (!is_announced_) {
    send_signal_live(1, 2);
    set_timeout(&watchdog_);
    is_announced_ = true;
  } else {
    timer_.cancel();  // the cancelled wait ends its chain
    timer_.expires_after(periods_.restart);
  }
  Wait();
}

void KeepAliveTimer::Wait() {
  timer_.async_wait([this](const boost::system::error_code& error) {
    if (error) return;
    send_and_shift_timeout(&watchdog_, &signal_, 2);
    // Cancels a wait that a new start armed after this one had expired but before it was handled:
    // one chain stays.
    timer_.expires_after(periods_.next);
    Wait();
  });
}

void StartKeepAlive(boost::asio::io_context& service) {
  // Never destroyed: its context, which main made, is not either when the process exits.
  static KeepAliveTimer& keep_alive = *new KeepAliveTimer(service, KeepAlivePeriods{});
  keep_alive.Start();
}

}  // namespace ipsla
