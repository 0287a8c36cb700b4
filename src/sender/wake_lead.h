// How much before its time a thread has to ask to be woken.

#ifndef IPSLA_SENDER_WAKE_LEAD_H_
#define IPSLA_SENDER_WAKE_LEAD_H_

#include <algorithm>
#include <chrono>

namespace ipsla {

/// A thread that sleeps until a moment wakes later than that, on an idle machine by some 50 to 100
/// microseconds, and every gap between two probes would be longer by as much. This learns by how
/// much, so that the sleep can be cut short by it: by what all but a tenth of the sleeps take. Most
/// of them then end a little early, and the rest is waited for awake; it is bounded by a share of
/// the sleep, so that many short sleeps do not add up to a busy CPU. Plain values; threads: one at
/// a time.
class WakeLead {
 public:
  using Duration = std::chrono::nanoseconds;

  /// No sleep is cut short by more.
  static constexpr Duration kMost{150'000};
  /// So many times longer is a sleep, at the least, than the time awake behind it.
  static constexpr int kSleepPerAwake = 64;

  /// To be taken off a sleep of this length.
  [[nodiscard]] Duration Lead(Duration sleep) const {
    return std::min(usual_, least_ + sleep / kSleepPerAwake);
  }

  /// A sleep ended so much after what it was asked for; never negative.
  void Woke(Duration lateness) {
    constexpr int kSlowness = 32;
    constexpr Duration kUp{4500};
    constexpr Duration kDown{500};  // nine times as often as up, then
    lateness = std::min(lateness, kMost);
    least_ = lateness < least_ ? lateness : least_ + (lateness - least_) / kSlowness;
    usual_ += std::clamp(lateness - usual_, -kDown, kUp);
  }

 private:
  // What every sleep takes: follows a lower lateness at once and a higher one slowly.
  Duration least_{0};
  // What nine of ten sleeps do not exceed.
  Duration usual_{0};
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_WAKE_LEAD_H_
