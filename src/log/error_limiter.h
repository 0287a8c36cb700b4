// The limiter of "ERROR" messages (see log.h), with a clock that a test can set.

#ifndef IPSLA_LOG_ERROR_LIMITER_H_
#define IPSLA_LOG_ERROR_LIMITER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>

#include "log/log.h"

namespace ipsla {

/// Threads: any.
class ErrorLimiter {
 public:
  /// The current time in seconds.
  using Clock = std::function<std::time_t()>;

  explicit ErrorLimiter(Clock clock) : clock_(std::move(clock)) {}

  /// AddErrorLimits, RemoveErrorLimits and IsErrorLogAllowed of log.h.
  void Add(std::uint16_t id);
  void Remove(std::uint16_t id);
  [[nodiscard]] bool IsAllowed(std::uint16_t id, int kind);

 private:
  struct Slot {
    std::time_t last = 0;     // start of the current counting period
    std::uint32_t count = 0;  // messages counted in the current period
    std::uint32_t span = 60;  // length of a period in seconds
    std::uint32_t limit = 1;  // messages allowed in one period
  };
  using Slots = std::array<Slot, kErrorKinds>;

  [[nodiscard]] Slots NewSlots() const;

  const Clock clock_;
  std::mutex mutex_;
  std::map<std::uint16_t, Slots> tests_;  // guarded by mutex_
};

}  // namespace ipsla

#endif  // IPSLA_LOG_ERROR_LIMITER_H_
