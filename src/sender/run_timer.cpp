#include "sender/run_timer.h"

#include <utility>

#include <boost/system/error_code.hpp>

namespace ipsla {

void RunTimer::Arm(std::chrono::milliseconds after, std::function<void(Ticket)> expired) {
  timer_.expires_after(after);
  const Ticket ticket = ++ticket_;
  timer_.async_wait([ticket, expired = std::move(expired)](const boost::system::error_code& error) {
    if (!error) expired(ticket);
  });
}

void RunTimer::Cancel() {
  ++ticket_;
  timer_.cancel();
}

}  // namespace ipsla
