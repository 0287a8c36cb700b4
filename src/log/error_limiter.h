// The limiter of "ERROR" messages: a test that keeps failing says so once a minute for each kind of
// failure, not with every run.

#ifndef IPSLA_LOG_ERROR_LIMITER_H_
#define IPSLA_LOG_ERROR_LIMITER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>

#include "log/mutex.h"

namespace ipsla {

/// What failed. Each test counts each kind by itself.
enum class ErrorKind : std::uint8_t {
  kStart = 0,            ///< a run could not be started
  kSend = 2,             ///< a probe could not be sent
  kControlRequest = 3,   ///< the control request could not be sent
  kControlResponse = 4,  ///< the control phase's answer was none, a refusal or faulty
  kControlTimeOut = 5    ///< the wait for that answer could not be ended
};

/// The table behind the functions below, with a clock that a test can set. Threads: any.
class ErrorLimiter {
 public:
  /// The current time in seconds.
  using Clock = std::function<std::time_t()>;

  /// An empty table.
  explicit ErrorLimiter(Clock clock) : clock_(std::move(clock)) {}

  /// AddErrorLimits, RemoveErrorLimits and IsErrorLogAllowed.
  void Add(std::uint16_t id);
  void Remove(std::uint16_t id);
  [[nodiscard]] bool IsAllowed(std::uint16_t id, ErrorKind kind);

 private:
  // How often one kind of failure was seen.
  struct Slot {
    std::time_t last = 0;     // start of the current counting period
    std::uint32_t count = 0;  // messages counted in the current period
    std::uint32_t span = 60;  // length of a period in seconds
    std::uint32_t limit = 1;  // messages allowed in one period
  };
  static constexpr std::size_t kSlots = 13;  // by kind; not every one is in use
  using Slots = std::array<Slot, kSlots>;

  // Slots whose periods all begin now.
  [[nodiscard]] Slots NewSlots() const;

  const Clock clock_;
  // Held for one count.
  Mutex mutex_;
  std::map<std::uint16_t, Slots> tests_ IPSLA_GUARDED_BY(mutex_);
};

/// Gives test `id` its slots, all periods starting now; an id that has slots keeps them.
void AddErrorLimits(std::uint16_t id);

/// Drops the slots of test `id`.
void RemoveErrorLimits(std::uint16_t id);

/// Counts a failure of test `id` and tells whether to report it. A period of 60 seconds begins with
/// the first failure after the last period's end, or when the clock was set back; only that first
/// one is reported. An id without slots gets them. Ask once for all lines of one report.
[[nodiscard]] bool IsErrorLogAllowed(std::uint16_t id, ErrorKind kind);

}  // namespace ipsla

#endif  // IPSLA_LOG_ERROR_LIMITER_H_
