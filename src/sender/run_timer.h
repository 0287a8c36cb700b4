// The one timer of a test.

#ifndef IPSLA_SENDER_RUN_TIMER_H_
#define IPSLA_SENDER_RUN_TIMER_H_

#include <chrono>
#include <cstdint>
#include <functional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace ipsla {

/// A steady-clock timer of which one wait counts at a time. A wait that was replaced or cancelled
/// may already have expired and stand in the io context's queue; its ticket tells that it is void.
/// Threads: one at a time; its owner's mutex is what makes that true.
class RunTimer {
 public:
  using Ticket = std::uint64_t;

  explicit RunTimer(boost::asio::io_context& worker) : timer_(worker) {}

  /// Calls `expired` with the ticket of this wait after so long, unless the wait is cancelled
  /// before it expires. Every wait armed before is void. `expired` runs on a thread of the context,
  /// takes the owner's mutex and then asks IsCurrent.
  void Arm(std::chrono::milliseconds after, std::function<void(Ticket)> expired);

  /// Makes the armed wait void.
  void Cancel();

  /// True for the wait that was armed last and not cancelled since.
  [[nodiscard]] bool IsCurrent(Ticket ticket) const { return ticket == ticket_; }

 private:
  // Its wait belongs to the last ticket given.
  boost::asio::steady_timer timer_;
  Ticket ticket_ = 0;
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_RUN_TIMER_H_
