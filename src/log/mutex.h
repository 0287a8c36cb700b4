// Mutexes that the compiler understands: clang's -Wthread-safety, an error in every build with it,
// checks each "guarded by". They stand on the lowest floor because the log needs them too.
//
// The macros are empty for other compilers. They are not a style of this project but the form that
// the attributes have to take.

#ifndef IPSLA_LOG_MUTEX_H_
#define IPSLA_LOG_MUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
/// An attribute of the analysis, for the compiler that has it.
#define IPSLA_ATTRIBUTE(x) __attribute__((x))
#else
#define IPSLA_ATTRIBUTE(x)
#endif

/// A field: read and written only with `mutex` held.
#define IPSLA_GUARDED_BY(mutex) IPSLA_ATTRIBUTE(guarded_by(mutex))
/// An operation: called only with the mutex held, and it is held when it returns.
#define IPSLA_REQUIRES(...) IPSLA_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// An operation: called only without the mutex.
#define IPSLA_EXCLUDES(...) IPSLA_ATTRIBUTE(locks_excluded(__VA_ARGS__))
/// An operation whose locking the analysis cannot follow; a comment says why it is right.
#define IPSLA_UNCHECKED_LOCKING IPSLA_ATTRIBUTE(no_thread_safety_analysis)

namespace ipsla {

/// std::mutex with the attributes. Lock it through MutexLock.
class IPSLA_ATTRIBUTE(capability("mutex")) Mutex {
 public:
  /// Waits for the mutex.
  void lock() IPSLA_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
  /// Gives it back.
  void unlock() IPSLA_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
  /// Takes it if nobody holds it. Tells whether it did.
  [[nodiscard]] bool try_lock() IPSLA_ATTRIBUTE(try_acquire_capability(true)) {
    return mutex_.try_lock();
  }
  /// Tells the analysis, in a callback, that the caller holds it.
  void AssertHeld() const IPSLA_ATTRIBUTE(assert_capability(this)) {}

 private:
  friend class Condition;
  std::mutex mutex_;
};

/// Holds a mutex from here to the end of the block, or in between to Unlock().
template <typename AnyMutex>
class IPSLA_ATTRIBUTE(scoped_lockable) LockOf {
 public:
  /// Waits for the mutex.
  explicit LockOf(AnyMutex& mutex) IPSLA_ATTRIBUTE(acquire_capability(mutex)) : mutex_(mutex) {
    mutex_.lock();
  }
  /// Takes over a mutex that the caller holds.
  LockOf(AnyMutex& mutex, std::adopt_lock_t) IPSLA_ATTRIBUTE(requires_capability(mutex))
      : mutex_(mutex) {}
  ~LockOf() IPSLA_ATTRIBUTE(release_capability()) {
    if (held_) mutex_.unlock();
  }
  LockOf(const LockOf&) = delete;
  LockOf& operator=(const LockOf&) = delete;

  /// Gives the mutex back before the block ends.
  void Unlock() IPSLA_ATTRIBUTE(release_capability()) {
    held_ = false;
    mutex_.unlock();
  }
  /// Takes it again.
  void Lock() IPSLA_ATTRIBUTE(acquire_capability()) {
    mutex_.lock();
    held_ = true;
  }

  /// For conditions.
  [[nodiscard]] AnyMutex& Held() { return mutex_; }

 private:
  AnyMutex& mutex_;
  bool held_ = true;
};

// Holds a Mutex.
using MutexLock = LockOf<Mutex>;

/// std::condition_variable for a Mutex. Each wait gives the held mutex back meanwhile and may also
/// end for no reason.
class Condition {
 public:
  /// Wakes one waiter, if there is one.
  void NotifyOne() { condition_.notify_one(); }
  /// Wakes every waiter.
  void NotifyAll() { condition_.notify_all(); }

  /// Waits for a notification.
  void Wait(MutexLock* held) {
    std::unique_lock lock(held->Held().mutex_, std::adopt_lock);
    condition_.wait(lock);
    static_cast<void>(lock.release());
  }

  /// Waits for a notification until `deadline` at the latest.
  template <typename Clock, typename Duration>
  void WaitUntil(MutexLock* held, const std::chrono::time_point<Clock, Duration>& deadline) {
    std::unique_lock lock(held->Held().mutex_, std::adopt_lock);
    condition_.wait_until(lock, deadline);
    static_cast<void>(lock.release());
  }

 private:
  std::condition_variable condition_;
};

}  // namespace ipsla

#endif  // IPSLA_LOG_MUTEX_H_
