// How much before its time a thread has to ask to be woken.

#ifndef IPSLA_SENDER_WAKE_LEAD_H_
#define IPSLA_SENDER_WAKE_LEAD_H_

#include <algorithm>
#include <chrono>

namespace ipsla {

/// A thread that sleeps until a moment wakes later than that, on an idle machine by some 50 to 100
/// microseconds, and every gap between two probes would be longer by as much. This learns by how
/// much at the least, so that the sleep can be cut short by it: it follows a lower lateness at once
/// and a higher one slowly. What is left until the moment is then so little that waiting for it
/// awake costs nothing. Plain values; threads: one at a time.
class WakeLead {
 public:
  /// At most so much is waited awake for.
  static constexpr std::chrono::nanoseconds kMost{100'000};

  /// To be taken off the moment that is slept for.
  [[nodiscard]] std::chrono::nanoseconds Lead() const { return lead_; }

  /// A sleep ended so much after what it was asked for; never negative.
  void Woke(std::chrono::nanoseconds lateness) {
    constexpr int kSlowness = 32;
    if (lateness < lead_) {
      lead_ = lateness;
    } else {
      lead_ += (std::min(lateness, kMost) - lead_) / kSlowness;
    }
  }

 private:
  std::chrono::nanoseconds lead_{0};
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_WAKE_LEAD_H_
