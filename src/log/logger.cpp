#include "log/logger.h"

#include <dirent.h>
#include <sched.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <exception>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

#include <boost/chrono/duration.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread.hpp>

#include "log/line_queue.h"
#include "log/line_time.h"
#include "log/log_file.h"
#include "log/mutex.h"
#include "log/open_ids.h"
#include "log/signal_stack.h"
#include "log/system_log.h"
#include "log/thread_stack.h"

namespace ipsla {
namespace {

bool DirectoryOpens(const std::string& directory) {
  DIR* const stream = opendir(directory.c_str());
  if (stream == nullptr) return false;
  closedir(stream);
  return true;
}

void CreateDirectory(const std::string& directory) {
  if (DirectoryOpens(directory) || mkdir(directory.c_str(), 0755) == 0) return;
  // Another thread may have made it meanwhile.
  if (errno == EEXIST && DirectoryOpens(directory)) return;
  throw std::runtime_error("Failed to create log directory!");
}

std::string FileName(std::uint16_t id) {
  return id == 0 ? "sender.log" : "test_" + std::to_string(id) + ".log";
}

// A small stack, and normal priority whatever the thread has that creates the logger: the disk can
// wait, tests cannot.
boost::thread::attributes WriterAttributes() {
  boost::thread::attributes attributes;
  attributes.set_stack_size(log_internal::RoundedStackBytes());
  pthread_attr_t* const native = attributes.native_handle();
  const sched_param normal{};
  pthread_attr_setinheritsched(native, PTHREAD_EXPLICIT_SCHED);
  pthread_attr_setschedpolicy(native, SCHED_OTHER);
  pthread_attr_setschedparam(native, &normal);
  return attributes;
}

// The logger whose writer thread this is.
thread_local const void* writer_of = nullptr;

}  // namespace

struct Logger::Impl {
  Impl(std::string log_directory, const LogFileCalls& file_calls)
      : directory(std::move(log_directory)), calls(file_calls) {}

  std::shared_ptr<LogFile> Find(std::uint16_t id) {
    const MutexLock lock(mutex);
    const auto found = files.find(id);
    return found == files.end() ? nullptr : found->second;
  }

  // The writer thread.
  void Run() {
    const log_internal::SignalStack signal_stack;
    writer_of = this;
    pthread_setname_np(pthread_self(), "log-writer");
    std::vector<LogLine> lines;
    while (queue.Take(&lines)) {
      try {
        WriteBatch(&lines);
      } catch (const std::exception&) {
        // Out of memory: what is not written yet of these lines is lost.
      }
      queue.Done();
      is_stuck = false;
    }
  }

  // Each file gets its lines at once, in their order. Files are looked up now: one may have been
  // closed, or closed and opened, since its line was queued.
  void WriteBatch(std::vector<LogLine>* lines) {
    std::stable_sort(lines->begin(), lines->end(),
                     [](const LogLine& a, const LogLine& b) { return a.id < b.id; });
    for (std::span<const LogLine> left(*lines); !left.empty();) {
      const auto end = std::find_if(left.begin(), left.end(), [&left](const LogLine& line) {
        return line.id != left.front().id;
      });
      const auto of_one = left.first(static_cast<std::size_t>(end - left.begin()));
      left = left.subspan(of_one.size());
      const std::shared_ptr<LogFile> file = Find(of_one.front().id);
      if (!file) continue;
      for (const LogLine& line : of_one) time.PutBefore(line, std::time(nullptr));
      file->Write(of_one, calls, [this](const std::string& failure) { Report(failure); });
    }
  }

  // A failed size check. If the one for this report fails as well, nothing more is said: otherwise
  // a "sender.log" without a position would report for ever about its own reports.
  void Report(const std::string& failure) {
    LOG_DEBUG_SYSTEM("%s", failure.c_str());
    const std::shared_ptr<LogFile> file = Find(0);
    if (!file) return;
    std::string line = std::string(LogLine::kTimeBytes, ' ') + failure + "\n";
    const LogLine report{0, line};
    time.PutBefore(report, std::time(nullptr));
    file->Write({&report, 1}, calls, [](const std::string&) {});
  }

  const std::string directory;
  const LogFileCalls calls;
  OpenIds open;
  LineQueue queue;
  std::atomic<bool> is_stuck{false};  // the disk has outlasted a CloseLogFile and not gone on since
  Mutex mutex;                        // never held while the disk is waited for
  // Null: could not be opened.
  std::map<std::uint16_t, std::shared_ptr<LogFile>> files IPSLA_GUARDED_BY(mutex);
  bool is_accepting IPSLA_GUARDED_BY(mutex) = true;
  LineTime time;         // the writer thread's
  Mutex shutdown_mutex;  // one Shutdown() at a time
  boost::thread writer IPSLA_GUARDED_BY(shutdown_mutex);
};

Logger::Logger(std::string directory) : Logger(std::move(directory), SystemLogFileCalls()) {}

Logger::Logger(std::string directory, const LogFileCalls& calls,
               std::chrono::milliseconds shutdown_patience)
    : impl_(std::make_shared<Impl>(std::move(directory), calls)),
      shutdown_patience_(shutdown_patience) {
  impl_->writer = boost::thread(WriterAttributes(), [impl = impl_] { impl->Run(); });
}

// On its own writer thread, which would go on with the freed logger, the exception ends the
// process. NOLINTNEXTLINE(bugprone-exception-escape)
Logger::~Logger() {
  Shutdown();
}

void Logger::OpenLogFile(std::uint16_t id) {
  if (impl_->Find(id)) return;
  CreateDirectory(impl_->directory);
  // Silent when it cannot be opened: nobody could act on it, and the system log has the messages.
  std::shared_ptr<LogFile> opened = LogFile::Open(impl_->directory + FileName(id));
  const MutexLock lock(impl_->mutex);
  if (!impl_->is_accepting) return;
  std::shared_ptr<LogFile>& entry = impl_->files[id];
  if (!entry) entry = std::move(opened);
  if (entry) impl_->open.Add(id);
}

void Logger::CloseLogFile(std::uint16_t id) {
  if (impl_->open.Has(id) && !impl_->is_stuck) impl_->is_stuck = !Flush(kClosePatience);
  std::shared_ptr<LogFile> file;  // closed behind the lock, or by the writer that is writing to it
  const MutexLock lock(impl_->mutex);
  const auto found = impl_->files.find(id);
  if (found == impl_->files.end()) return;
  impl_->open.Remove(id);
  file = std::move(found->second);
  impl_->files.erase(found);
}

void Logger::Write(std::uint16_t id, std::string_view text) {
  if (IsOpen(id)) impl_->queue.Push(id, text);
}

bool Logger::IsOpen(std::uint16_t id) const {
  return impl_->open.Has(id);
}

bool Logger::Flush(std::chrono::milliseconds patience) {
  if (writer_of == impl_.get()) return false;
  return impl_->queue.WaitUntilDone(std::chrono::steady_clock::now() + patience);
}

void Logger::Shutdown() {
  {
    const MutexLock lock(impl_->mutex);
    impl_->is_accepting = false;
  }
  impl_->queue.Close();
  // Said here and not by join(): another thread may be waiting for this one already, with the lock
  // below.
  if (writer_of == impl_.get()) {
    throw boost::thread_resource_error(
        static_cast<int>(boost::system::errc::resource_deadlock_would_occur),
        "boost thread: trying joining itself");
  }
  const MutexLock one_at_a_time(impl_->shutdown_mutex);
  if (impl_->writer.joinable() &&
      !impl_->writer.try_join_for(boost::chrono::milliseconds(shutdown_patience_.count()))) {
    impl_->writer.detach();
  }
  std::map<std::uint16_t, std::shared_ptr<LogFile>> files;
  const MutexLock lock(impl_->mutex);
  for (const auto& [id, file] : impl_->files) impl_->open.Remove(id);
  files.swap(impl_->files);
}

}  // namespace ipsla
