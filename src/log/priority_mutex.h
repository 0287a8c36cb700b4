// A mutex and a condition between threads of different priorities.

#ifndef IPSLA_LOG_PRIORITY_MUTEX_H_
#define IPSLA_LOG_PRIORITY_MUTEX_H_

#include <pthread.h>

#include <chrono>
#include <ctime>

#include "log/mutex.h"

namespace ipsla {

/// Who holds it has the priority of who waits for it, so that an ordinary thread that was put aside
/// while it held the mutex does not keep a real-time one waiting behind a busy machine.
class IPSLA_ATTRIBUTE(capability("mutex")) PriorityMutex {
 public:
  /// With priority inheritance where the kernel has it.
  PriorityMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    // Without the kernel's support an ordinary one does.
    if (pthread_mutex_init(&mutex_, &attributes) != 0) pthread_mutex_init(&mutex_, nullptr);
    pthread_mutexattr_destroy(&attributes);
  }
  ~PriorityMutex() { pthread_mutex_destroy(&mutex_); }
  PriorityMutex(const PriorityMutex&) = delete;
  PriorityMutex& operator=(const PriorityMutex&) = delete;

  /// Waits for the mutex.
  void lock() IPSLA_ATTRIBUTE(acquire_capability()) { pthread_mutex_lock(&mutex_); }
  /// Gives it back.
  void unlock() IPSLA_ATTRIBUTE(release_capability()) { pthread_mutex_unlock(&mutex_); }

  /// For PriorityCondition.
  [[nodiscard]] pthread_mutex_t* Native() { return &mutex_; }

 private:
  // Of the C library: std::mutex inherits no priorities.
  pthread_mutex_t mutex_{};
};

// Holds a PriorityMutex.
using PriorityLock = LockOf<PriorityMutex>;

/// A condition variable over a PriorityMutex, by the steady clock. Each wait gives the held mutex
/// back meanwhile and may also end for no reason.
class PriorityCondition {
 public:
  /// Its deadlines are of the steady clock.
  PriorityCondition() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition_, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  ~PriorityCondition() { pthread_cond_destroy(&condition_); }
  PriorityCondition(const PriorityCondition&) = delete;
  PriorityCondition& operator=(const PriorityCondition&) = delete;

  /// Waits for a notification.
  void Wait(PriorityLock* held) { pthread_cond_wait(&condition_, held->Held().Native()); }

  /// Waits for a notification until `deadline` at the latest. False when that has passed.
  bool WaitUntil(PriorityLock* held, std::chrono::steady_clock::time_point deadline) {
    const auto since = deadline.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
    timespec time{};
    time.tv_sec = seconds.count();
    time.tv_nsec = std::chrono::nanoseconds(since - seconds).count();
    return pthread_cond_timedwait(&condition_, held->Held().Native(), &time) == 0;
  }

  /// Wakes every waiter.
  void NotifyAll() { pthread_cond_broadcast(&condition_); }

 private:
  pthread_cond_t condition_{};
};

}  // namespace ipsla

#endif  // IPSLA_LOG_PRIORITY_MUTEX_H_
