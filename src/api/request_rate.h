// How fast requests are taken.

#ifndef IPSLA_API_REQUEST_RATE_H_
#define IPSLA_API_REQUEST_RATE_H_

#include <chrono>

namespace ipsla {

/// Lets so many requests pass in a second, on average, and some at once. A local user who floods
/// the API gets no more of its CPU than these cost. Threads: one at a time.
class RequestRate {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr int kPerSecond = 5000;
  static constexpr int kAtOnce = 50;

  /// True when one more may pass at `now`; it then counts as passed.
  [[nodiscard]] bool Pass(Time now);

 private:
  Time all_gone_{};  // when, at this rate, all that passed will have been due
};

}  // namespace ipsla

#endif  // IPSLA_API_REQUEST_RATE_H_
