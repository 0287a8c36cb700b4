// Asks the daemon, one question at a time, and keeps what it answered.
//
// Whoever needs figures asks with the age that he can live with. Answers young enough are given at
// once; those who wait for a question under way all get its answer, so that many scrapes cost the
// daemon no more than one. Questions of its own keep the history complete where scrapes are rarer
// than runs.

#ifndef IPSLA_TOOLS_EXPORTER_COLLECTOR_H_
#define IPSLA_TOOLS_EXPORTER_COLLECTOR_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "client/sender_client.h"
#include "exporter/history.h"
#include "exporter/snapshot.h"
#include "exporter/tasks_file.h"
#include "log/mutex.h"

namespace ipsla::exporter {

/// How the daemon is asked, and how much is kept.
struct CollectorOptions {
  std::uint16_t api_port = 10101;
  std::chrono::milliseconds timeout{5000};   ///< of a whole question
  std::chrono::milliseconds interval{5000};  ///< shortest time between two questions of its own
  std::string tasks_file;                    ///< empty: none
  std::size_t history_bytes = 64U << 20U;
};

/// Threads: any. The questions are asked on a thread of its own, which lives as long as it does.
class Collector {
 public:
  /// Takes an answer, which does not change any more.
  using Callback = std::function<void(SnapshotPtr)>;

  /// Starts the thread. Throws std::system_error when there is no timer or thread to be had.
  explicit Collector(CollectorOptions options);
  /// Interrupts the question under way; whoever waits is not called any more.
  ~Collector();  // NOLINT(bugprone-exception-escape): see its definition
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  /// Calls `callback` exactly once, with an answer that is at most `max_age` old, a second where
  /// the daemon did not answer, or was asked for after this call or just before it: here and now,
  /// or later on the collector's thread, without any lock held.
  void Ask(std::chrono::milliseconds max_age, Callback callback);

  /// JSON of the results of one task since `since`, seconds since the epoch.
  [[nodiscard]] std::string HistoryOf(std::int32_t task, std::int64_t since) const;

  /// How much is kept now.
  [[nodiscard]] HistoryState StateOfHistory() const;

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  [[nodiscard]] bool WaitUntilDue(MutexLock* held) IPSLA_REQUIRES(mutex_);
  [[nodiscard]] Clock::time_point NextOwnQuestion() const IPSLA_REQUIRES(mutex_);
  void SetAlarm(std::chrono::nanoseconds delay) const;
  [[nodiscard]] SnapshotPtr Question();

  // Constant.
  const CollectorOptions options_;
  const int alarm_fd_;    // a timer: readable when a question has to end
  TasksFile tasks_file_;  // used by the thread alone
  // Held for short steps, never while a question is asked.
  mutable Mutex mutex_;
  Condition wanted_;
  bool stopping_ IPSLA_GUARDED_BY(mutex_) = false;
  std::vector<Callback> waiting_ IPSLA_GUARDED_BY(mutex_);
  SnapshotPtr latest_ IPSLA_GUARDED_BY(mutex_);
  History history_ IPSLA_GUARDED_BY(mutex_);
  // Last, so that it starts when all else is there.
  std::thread thread_;
};

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_COLLECTOR_H_
