// A mutex and a condition between threads of different priorities.

#ifndef IPSLA_LOG_PRIORITY_MUTEX_H_
#define IPSLA_LOG_PRIORITY_MUTEX_H_

#include <pthread.h>

#include <chrono>
#include <ctime>
#include <mutex>

namespace ipsla {

/// Who holds it has the priority of who waits for it, so that an ordinary thread that was put aside
/// while it held the mutex does not keep a real-time one waiting behind a busy machine.
class PriorityMutex {
 public:
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

  /// For std::lock_guard and std::unique_lock.
  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

  /// For PriorityCondition.
  [[nodiscard]] pthread_mutex_t* Native() { return &mutex_; }

 private:
  pthread_mutex_t mutex_{};
};

/// A condition variable over a PriorityMutex, by the steady clock. Waits may end without reason.
class PriorityCondition {
 public:
  using Lock = std::unique_lock<PriorityMutex>;

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

  void Wait(Lock& lock) { pthread_cond_wait(&condition_, lock.mutex()->Native()); }

  /// False when `deadline` has passed.
  bool WaitUntil(Lock& lock, std::chrono::steady_clock::time_point deadline) {
    const auto since = deadline.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
    timespec time{};
    time.tv_sec = seconds.count();
    time.tv_nsec = std::chrono::nanoseconds(since - seconds).count();
    return pthread_cond_timedwait(&condition_, lock.mutex()->Native(), &time) == 0;
  }

  void NotifyAll() { pthread_cond_broadcast(&condition_); }

 private:
  pthread_cond_t condition_{};
};

}  // namespace ipsla

#endif  // IPSLA_LOG_PRIORITY_MUTEX_H_
