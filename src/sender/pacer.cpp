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

void Pacer::Serve() {
  MutexLock lock(mutex_);
  while (!queue_.empty()) {
    const SteadyTime due = queue_.begin()->first;
    if (SteadyNow() < due) {
      SleepUntilDue(due, &lock);
      continue;
    }
    auto probe = queue_.extract(queue_.begin());
    lock.Unlock();
    const std::optional<SteadyTime> next = probe.mapped()();
    // What `send` holds is let go without the lock: it may be the last owner of a test.
    if (!next) probe = {};
    lock.Lock();
    if (!next || stopped_) continue;
    probe.key() = *next;
    queue_.insert(std::move(probe));
  }
  on_duty_ = false;
}

// Until `due`, or until an earlier probe was added.
void Pacer::SleepUntilDue(SteadyTime due, MutexLock* lock) {
  const SteadyTime wake = due - lead_.Lead();
  if (SteadyNow() < wake) {
    waiting_for_.store(due, std::memory_order_relaxed);
    earlier_.WaitUntil(lock, wake);
    waiting_for_.store(SteadyTime::max(), std::memory_order_relaxed);
    const SteadyTime now = SteadyNow();
    if (now < wake) return;
    lead_.Woke(now - wake);
  }
  while (SteadyNow() < due) {
  }
}

}  // namespace ipsla
