#include "log/error_limiter.h"

namespace ipsla {
namespace {

// Never destroyed: tests may still fail while the process exits.
ErrorLimiter& ProcessLimiter() {
  static ErrorLimiter& limiter = *new ErrorLimiter([] { return std::time(nullptr); });
  return limiter;
}

}  // namespace

ErrorLimiter::Slots ErrorLimiter::NewSlots() const {
  Slots slots;
  slots.fill(Slot{.last = clock_()});
  return slots;
}

void ErrorLimiter::Add(std::uint16_t id) {
  const MutexLock lock(mutex_);
  tests_.try_emplace(id, NewSlots());
}

void ErrorLimiter::Remove(std::uint16_t id) {
  const MutexLock lock(mutex_);
  tests_.erase(id);
}

bool ErrorLimiter::IsAllowed(std::uint16_t id, ErrorKind kind) {
  const MutexLock lock(mutex_);
  Slot& slot = tests_.try_emplace(id, NewSlots()).first->second.at(static_cast<std::size_t>(kind));
  const std::time_t now = clock_();
  const std::time_t elapsed = now - slot.last;
  if (elapsed >= 0 && elapsed < static_cast<std::time_t>(slot.span)) {
    ++slot.count;
  } else {
    slot.last = now;
    slot.count = 1;
  }
  return slot.count <= slot.limit;
}

void AddErrorLimits(std::uint16_t id) {
  ProcessLimiter().Add(id);
}

void RemoveErrorLimits(std::uint16_t id) {
  ProcessLimiter().Remove(id);
}

bool IsErrorLogAllowed(std::uint16_t id, ErrorKind kind) {
  return ProcessLimiter().IsAllowed(id, kind);
}

}  // namespace ipsla
