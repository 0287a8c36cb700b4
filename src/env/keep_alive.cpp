#include "env/keep_alive.h"

#include "env/keep_alive_timer.h"

namespace ipsla {
namespace {

// Never destroyed: its context, which main made, is not either when the process exits.
KeepAliveTimer* process_keep_alive = nullptr;

}  // namespace

KeepAliveTimer::KeepAliveTimer(boost::asio::io_context& service, const KeepAlivePeriods& periods)
    : periods_(periods), timer_(service, periods.first) {}

void KeepAliveTimer::Start() {
  if (!is_announced_) {
    send_signal_live(1, 2);
    set_timeout(&watchdog_);
    is_announced_ = true;
    last_signal_ = std::chrono::steady_clock::now();
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
    last_signal_ = std::chrono::steady_clock::now();
    // Cancels a wait that a new start armed after this one had expired but before it was handled:
    // one chain stays.
    timer_.expires_after(periods_.next);
    Wait();
  });
}

void KeepAliveTimer::SignalWhenDue() {
  const auto now = std::chrono::steady_clock::now();
  if (!is_announced_ || now - last_signal_ < periods_.next) return;
  send_and_shift_timeout(&watchdog_, &signal_, 2);
  last_signal_ = now;
}

void StartKeepAlive(boost::asio::io_context& service) {
  if (process_keep_alive == nullptr) {
    process_keep_alive = new KeepAliveTimer(service, KeepAlivePeriods{});
  }
  process_keep_alive->Start();
}

void SignalKeepAlive() {
  if (process_keep_alive != nullptr) process_keep_alive->SignalWhenDue();
}

}  // namespace ipsla
