#include "sender/pacer.h"

#include <sched.h>

#include <utility>

#include <boost/asio/post.hpp>

namespace ipsla {

void Pacer::Add(SteadyTime due, SendProbe send) {
  const MutexLock lock(mutex_);
  if (stopped_) return;
  const bool is_earliest = queue_.empty() || due < queue_.begin()->first;
  queue_.emplace(due, std::move(send));
  if (!on_duty_) {
    on_duty_ = true;
    duty_cpu_.store(kAnywhere, std::memory_order_relaxed);
    boost::asio::post(worker_, [this] { Serve(); });
  } else if (is_earliest) {
    earlier_.NotifyOne();
  }
}

void Pacer::Stop() {
  std::multimap<SteadyTime, SendProbe> dropped;
  const MutexLock lock(mutex_);
  stopped_ = true;
  dropped.swap(queue_);
  earlier_.NotifyAll();
}

void Pacer::LetDueProbesPass() const {
  if (SteadyNow() >= waiting_for_.load(std::memory_order_relaxed)) sched_yield();
}

bool Pacer::IsOnDutyHere() const {
  const int cpu = duty_cpu_.load(std::memory_order_relaxed);
  return cpu == kAnywhere || (cpu != kNowhere && cpu == sched_getcpu());
}

void Pacer::Serve() {
  duty_cpu_.store(sched_getcpu(), std::memory_order_relaxed);
  MutexLock lock(mutex_);
  while (!queue_.empty()) {
    const SteadyTime due = queue_.begin()->first;
    if (SteadyNow() < due && !SleepUntilNearly(due, &lock)) continue;
    auto probe = queue_.extract(queue_.begin());
    lock.Unlock();
    while (SteadyNow() < probe.key()) {
    }
    const std::optional<SteadyTime> next = probe.mapped()();
    // What `send` holds is let go without the lock: it may be the last owner of a test.
    if (!next) probe = {};
    lock.Lock();
    if (!next || stopped_) continue;
    probe.key() = *next;
    queue_.insert(std::move(probe));
  }
  on_duty_ = false;
  duty_cpu_.store(kNowhere, std::memory_order_relaxed);
}

// Until so little is missing that it is waited for awake. False when the queue has changed before.
bool Pacer::SleepUntilNearly(SteadyTime due, MutexLock* lock) {
  const SteadyTime begin = SteadyNow();
  const SteadyTime wake = due - lead_.Lead(due - begin);
  if (begin >= wake) return true;
  waiting_for_.store(wake, std::memory_order_relaxed);
  earlier_.WaitUntil(lock, wake);
  waiting_for_.store(SteadyTime::max(), std::memory_order_relaxed);
  const SteadyTime now = SteadyNow();
  if (now < wake || stopped_) return false;
  lead_.Woke(now - wake);
  return true;
}

}  // namespace ipsla
