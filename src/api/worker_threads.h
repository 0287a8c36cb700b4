// The worker context, on which all tests run, and the threads that run it.

#ifndef IPSLA_API_WORKER_THREADS_H_
#define IPSLA_API_WORKER_THREADS_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include <boost/asio/deadline_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/thread/thread.hpp>

#include "log/mutex.h"

namespace ipsla {

/// Worker threads started for every CPU that the tasks file lists.
inline constexpr std::size_t kThreadsPerCpu = 15;

/// Threads: any. (The main thread starts the workers when the API thread runs already, and may at
/// once handle a reload.)
class WorkerThreads {
 public:
  /// Starts nothing yet.
  WorkerThreads();
  /// Stop().
  ~WorkerThreads();  // NOLINT(bugprone-exception-escape): a log call does not throw
  WorkerThreads(const WorkerThreads&) = delete;
  WorkerThreads& operator=(const WorkerThreads&) = delete;

  /// Lives as long as this object, also after Stop().
  [[nodiscard]] boost::asio::io_context& Context() { return context_; }

  /// The CPUs for the next Start(), in place of those given before. One may be listed repeatedly.
  void SetCpus(std::vector<std::uint8_t> cpus);

  /// Starts the threads, each pinned to its CPU, the first time that there is a CPU. When the
  /// system has no thread to give, that is logged, and those already started go on.
  void Start();

  /// Ends the context's work and joins the threads (within 100 ms or so: a sender between two
  /// probes wakes that often). Nothing can be started again. May be called twice. Throws
  /// boost::system::system_error naming "cancel".
  void Stop();

 private:
  // Steps of Start().
  void WaitIdle();
  void StartOnCpu(std::uint8_t cpu, const boost::thread::attributes& attributes)
      IPSLA_REQUIRES(mutex_);

  // Where every test's handlers run.
  boost::asio::io_context context_;
  // Between Start(), SetCpus() and Stop().
  Mutex mutex_;
  std::vector<std::uint8_t> cpus_ IPSLA_GUARDED_BY(mutex_);
  bool started_ IPSLA_GUARDED_BY(mutex_) = false;
  boost::thread_group threads_ IPSLA_GUARDED_BY(mutex_);
  // The threads' while there are any.
  boost::asio::deadline_timer idle_timer_;
};

}  // namespace ipsla

#endif  // IPSLA_API_WORKER_THREADS_H_
