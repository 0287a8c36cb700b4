// Who sends when: the due probes of all tests in one queue, and the one thread that sends them.

#ifndef IPSLA_SENDER_PACER_H_
#define IPSLA_SENDER_PACER_H_

#include <atomic>
#include <functional>
#include <map>
#include <optional>

#include <boost/asio/io_context.hpp>

#include "env/time_values.h"
#include "log/mutex.h"
#include "sender/wake_lead.h"

namespace ipsla {

/// The queue of due probes, so that waiting tests need no threads. One thread of the worker context
/// at a time is on duty: it waits for the earliest
/// probe, sends what is due, and leaves when the queue is empty.
///
/// All threads have one real-time priority, so the thread on duty does not interrupt the others:
/// those let it pass (LetDueProbesPass) between short steps and do long ones BelowPacing, if it has
/// their CPU.
///
/// Threads: any. Its mutex is never held while a probe is sent, and may be taken with a test's
/// held. Lifetime: it must outlive the run of the worker context.
class Pacer {
 public:
  /// Sends one probe. Returns when the next one of that test is due; nothing when no more will
  /// come this way. Called on the thread on duty, without any lock; does not throw.
  using SendProbe = std::function<std::optional<SteadyTime>()>;

  /// `worker` lends the thread on duty.
  explicit Pacer(boost::asio::io_context& worker) : worker_(worker) {}

  Pacer(const Pacer&) = delete;
  Pacer& operator=(const Pacer&) = delete;

  /// Has `send` called at `due`, and again whenever it says so.
  void Add(SteadyTime due, SendProbe send);

  /// Gives the CPU to the thread on duty when it should be sending but is not: because the caller
  /// is in its way, perhaps. To be called between short steps, without any lock.
  void LetDueProbesPass() const;

  /// True when the thread on duty has the caller's CPU, or may be about to have it, and would have
  /// to wait for the caller's work to end: that is then better done BelowPacing. On another CPU it
  /// is better not: the next thread of the daemon to wake up would interrupt it, and the next one
  /// that one. (Worker threads do not leave their CPUs.)
  [[nodiscard]] bool IsOnDutyHere() const;

  /// Empties the queue and ends the duty; nothing is sent any more, and Add does nothing.
  void Stop();

 private:
  // What the thread on duty does.
  void Serve();
  [[nodiscard]] bool SleepUntilNearly(SteadyTime due, MutexLock* lock) IPSLA_REQUIRES(mutex_);

  static constexpr int kNowhere = -1;
  static constexpr int kAnywhere = -2;  // called, and not begun yet

  // Lends the threads.
  boost::asio::io_context& worker_;
  // Held for one look at the queue.
  Mutex mutex_;
  // What the thread on duty sleeps for; the end of time when it is awake, or there is none.
  std::atomic<SteadyTime> waiting_for_{SteadyTime::max()};
  // The CPU of the thread on duty. What is old by a moment costs a moment of pacing, no more.
  std::atomic<int> duty_cpu_{kNowhere};
  Condition earlier_;  // an earlier probe was added, or Stop()
  std::multimap<SteadyTime, SendProbe> queue_ IPSLA_GUARDED_BY(mutex_);
  WakeLead lead_ IPSLA_GUARDED_BY(mutex_);
  bool on_duty_ IPSLA_GUARDED_BY(mutex_) = false;
  bool stopped_ IPSLA_GUARDED_BY(mutex_) = false;
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_PACER_H_
