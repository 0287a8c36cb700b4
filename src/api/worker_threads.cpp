#include "api/worker_threads.h"

#include <exception>
#include <memory>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/date_time/posix_time/posix_time_duration.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/exceptions.hpp>

#include "env/process.h"
#include "log/log.h"
#include "log/signal_stack.h"

namespace ipsla {
namespace {

constexpr long kIdleSeconds = 99999999;

}  // namespace

WorkerThreads::WorkerThreads() : idle_timer_(context_) {}

WorkerThreads::~WorkerThreads() {  // NOLINT(bugprone-exception-escape): a log call does not throw
  try {
    Stop();
  } catch (const std::exception& exception) {
    LOG_DEBUG(0, "Catch exception %s", exception.what());
  }
}

void WorkerThreads::SetCpus(std::vector<std::uint8_t> cpus) {
  const MutexLock lock(mutex_);
  cpus_ = std::move(cpus);
}

void WorkerThreads::Start() {
  const MutexLock lock(mutex_);
  if (started_ || cpus_.empty()) return;
  started_ = true;
  idle_timer_.expires_from_now(boost::posix_time::seconds(kIdleSeconds));
  WaitIdle();
  boost::thread::attributes attributes;
  attributes.set_stack_size(ThreadStackBytes());
  try {
    for (const std::uint8_t cpu : cpus_) StartOnCpu(cpu, attributes);
  } catch (const boost::thread_resource_error& exception) {
    LOG_DEBUG(0, "Start main loop failed: %s", exception.what());
    // Without a single thread no test would ever run: the next reload tries again.
    if (threads_.size() == 0) started_ = false;
  }
}

void WorkerThreads::StartOnCpu(std::uint8_t cpu, const boost::thread::attributes& attributes) {
  for (std::size_t count = 0; count < kThreadsPerCpu; ++count) {
    auto thread = std::make_unique<boost::thread>(attributes, [this] {
      const log_internal::SignalStack signal_stack;
      context_.run();
    });
    SetCpuNum(thread->native_handle(), cpu);
    threads_.add_thread(thread.get());
    static_cast<void>(thread.release());  // the group's now
  }
}

// Keeps the context from running out of work while no test waits for anything.
void WorkerThreads::WaitIdle() {
  idle_timer_.async_wait([this](const boost::system::error_code& error) {
    if (error == boost::asio::error::operation_aborted) return;
    idle_timer_.expires_at(idle_timer_.expires_at() + boost::posix_time::seconds(kIdleSeconds));
    WaitIdle();
  });
}

void WorkerThreads::Stop() {
  context_.stop();
  {
    const MutexLock lock(mutex_);
    started_ = true;  // none is started any more
    threads_.join_all();
  }
  // Only now: while the threads run, the timer is theirs.
  idle_timer_.cancel();
}

}  // namespace ipsla
