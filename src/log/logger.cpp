#include "log/logger.h"

#include <dirent.h>
#include <sched.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <future>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread.hpp>

#include "log/format.h"
#include "log/log_file.h"
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

std::string LocalTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  std::array<char, 26> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%d-%m-%Y %T", &local);
  return {text.data(), length};
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
      : directory(std::move(log_directory)), calls(file_calls), writer(WriterAttributes(), [this] {
          writer_of = this;
          pthread_setname_np(pthread_self(), "log-writer");
          service.run();
        }) {}

  std::shared_ptr<LogFile> Find(std::uint16_t id) {
    const std::lock_guard lock(mutex);
    const auto found = files.find(id);
    return found == files.end() ? nullptr : found->second;
  }

  // On the writer thread. The file is looked up again: it may have been closed, or closed and
  // opened, meanwhile. `is_report`: the line itself reports a failed size check. If that fails for
  // its file too, nothing more is said: otherwise a "sender.log" without a position would report
  // for ever about its own reports.
  void Write(std::uint16_t id, const std::string& text, bool is_report) {
    const std::shared_ptr<LogFile> file = Find(id);
    if (!file) return;
    const std::string line = LocalTime() + ": " + text + "\n";
    const std::string failure = file->CheckLogFileSize(calls);
    if (!failure.empty() && !is_report) {
      LOG_DEBUG_SYSTEM("%s", failure.c_str());
      Write(0, failure,
            true);  // no lock is held here; the report comes before the line that it is about
    }
    file->Append(line);
  }

  // Queues work for the writer thread unless it is ending. What is queued runs before the thread is
  // joined.
  template <typename Job>
  bool Post(Job job) {
    const std::lock_guard lock(mutex);
    if (!is_accepting) return false;
    boost::asio::post(service, std::move(job));
    return true;
  }

  const std::string directory;
  const LogFileCalls calls;
  std::mutex mutex;  // never held while the disk is waited for
  std::map<std::uint16_t, std::shared_ptr<LogFile>>
      files;                  // guarded by mutex; null: could not be opened
  bool is_accepting = true;   // guarded by mutex
  std::mutex shutdown_mutex;  // one Shutdown() at a time
  boost::asio::io_context service;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{
      service.get_executor()};
  boost::thread writer;  // last: uses all of the above
};

Logger::Logger(std::string directory) : Logger(std::move(directory), SystemLogFileCalls()) {}

Logger::Logger(std::string directory, const LogFileCalls& calls)
    : impl_(std::make_unique<Impl>(std::move(directory), calls)) {}

// On its own writer thread, which would go on with the freed logger, the exception deliberately
// ends the process. NOLINTNEXTLINE(bugprone-exception-escape)
Logger::~Logger() {
  Shutdown();
}

void Logger::OpenLogFile(std::uint16_t id) {
  if (impl_->Find(id)) return;
  CreateDirectory(impl_->directory);
  // Deliberately silent when it cannot be opened: a run-time error "Can't create log file: <path>"
  // would have nobody to act on it. The null entry makes the test's file messages drop; the system
  // log still has them.
  std::shared_ptr<LogFile> opened = LogFile::Open(impl_->directory + FileName(id));
  const std::lock_guard lock(impl_->mutex);
  if (!impl_->is_accepting) return;
  std::shared_ptr<LogFile>& entry = impl_->files[id];
  if (!entry) entry = std::move(opened);
}

void Logger::CloseLogFile(std::uint16_t id) {
  std::shared_ptr<LogFile> file;
  {
    const std::lock_guard lock(impl_->mutex);
    const auto found = impl_->files.find(id);
    if (found == impl_->files.end()) return;
    file = std::move(found->second);
    impl_->files.erase(found);
  }
  if (file) file->Close();
}

void Logger::Log(std::uint16_t id, int flag, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  LogV(id, flag, format, arguments);
  va_end(arguments);
}

void Logger::LogV(std::uint16_t id, int /*flag*/, const char* format, va_list arguments) {
  const log_internal::ErrnoKeeper keep_errno;
  try {
    if (!impl_->Find(id)) return;
    std::string text = FormatV(format, arguments);
    impl_->Post([impl = impl_.get(), id, text = std::move(text)] { impl->Write(id, text, false); });
  } catch (const std::exception&) {
    // Out of memory: the line is lost, the caller goes on.
  }
}

void Logger::Flush() {
  const auto done = std::make_shared<std::promise<void>>();
  if (impl_->Post([done] { done->set_value(); })) done->get_future().wait();
}

void Logger::Shutdown() {
  {
    const std::lock_guard lock(impl_->mutex);
    impl_->is_accepting = false;
  }
  // Said here and not by join(): another thread may be waiting for this one already, with the lock
  // below.
  if (writer_of == impl_.get()) {
    throw boost::thread_resource_error(
        static_cast<int>(boost::system::errc::resource_deadlock_would_occur),
        "boost thread: trying joining itself");
  }
  const std::lock_guard one_at_a_time(impl_->shutdown_mutex);
  impl_->work.reset();
  if (impl_->writer.joinable()) impl_->writer.join();
  std::map<std::uint16_t, std::shared_ptr<LogFile>> files;
  {
    const std::lock_guard lock(impl_->mutex);
    files.swap(impl_->files);
  }
  for (const auto& [id, file] : files) {
    if (file) file->Close();
  }
}

}  // namespace ipsla
