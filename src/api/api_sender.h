// The daemon's central object: the configuration and the running tests.

#ifndef IPSLA_API_API_SENDER_H_
#define IPSLA_API_API_SENDER_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/io_context.hpp>

#include "api/api_server.h"
#include "api/help_funcs.h"
#include "api/netlink_watcher.h"
#include "api/worker_threads.h"
#include "config/keychain.h"
#include "config/task_config.h"
#include "sender/interface_table.h"
#include "sender/sender.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// Starts one test for each task, follows reloads of the two files, and tells the tests what the
/// watchers of interfaces and clock see.
///
/// Threads: unless it says otherwise, an operation belongs to the service thread: the API thread
/// once it runs the service context, the main thread before that and after it has ended. Only that
/// thread changes the task map, the test map, the netlink sockets and the interface table.
///
/// Failures: a file that cannot be read is a status. A test or a VRF that cannot be set up throws
/// past every caller: kept-behaviours.md#a-task-that-cannot-be-set-up-ends-the-daemon
///
/// The service context must outlive the object. A handler still queued there after Stop() does
/// nothing.
class ApiSender : private InterfaceObserver {
 public:
  /// Opens the API socket and behind it the clock watch; the first failure is logged ("Sender api
  /// creation failed: ...") and leaves the rest out. So a port that is taken costs both the API and
  /// the watch, and a watch that fails only itself. The daemon measures all the same.
  ApiSender(boost::asio::io_context& service, std::string tasks_file, std::string keychain_file);

  /// Stop().
  ~ApiSender() override;  // NOLINT(bugprone-exception-escape): a log call does not throw

  ApiSender(const ApiSender&) = delete;
  ApiSender& operator=(const ApiSender&) = delete;

  /// What is missing and why, for a person: the API with the watch of the clock, or the watch
  /// alone; empty when all is well.
  [[nodiscard]] const std::string& CreationFault() const { return creation_fault_; }

  /// Reads both files, dumps them and starts one test per task in ascending id. 0, or -1 after
  /// logging the reason.
  [[nodiscard]] int ParseConfigsAndStart();

  /// Why a file could not be used the last time, for a person: one line that names it.
  [[nodiscard]] const std::string& FileFault() const { return file_fault_; }

  /// Starts the worker threads (WorkerThreads::Start). Threads: any.
  void StartMainLoop() { workers_.Start(); }

  /// Ends everything: stops all tests, closes every descriptor, joins the worker threads. Throws
  /// boost::system::system_error naming "cancel" or "close". May be called twice; nothing can be
  /// started again.
  void Stop();

 private:
  // Begins to wait for the system clock to be set. Throws std::runtime_error or
  // boost::system::system_error.
  void OpenClockWatch();

  // Reads the tasks file and takes over its CPU list. 0, or -1 after logging.
  [[nodiscard]] int ReadTasksFile(SlaTaskMap* tasks);
  [[nodiscard]] bool ReloadTasks();
  [[nodiscard]] bool ReloadKeychain();

  // Applies a reloaded tasks file: tests of new tasks start, tests of removed ones end, a changed
  // task gets a new test and empty statistics, an unchanged one is not touched. Takes 10 ms per
  // task. Always 0.
  [[nodiscard]] int UpdateTaskConfigs(const SlaTaskMap& new_tasks);
  void StartTest(const SlaTaskConfig& task);
  void RemoveTask(std::uint16_t id);
  void ReplaceTask(const SlaTaskConfig& task);
  void EraseStatistics(std::uint16_t id);
  void ReleaseNetlinkSocket(const std::string& vrf);

  // InterfaceObserver: every change goes to every test in ascending id; each test knows whether it
  // is concerned.
  void UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                          std::uint32_t new_address, std::uint32_t old_address) override;
  void SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                         const std::optional<std::string>& if_name) override;

  // Constant, as given on the command line.
  const std::string tasks_file_;
  const std::string keychain_file_;
  std::string creation_fault_;
  std::string file_fault_;

  // Shared with the tests, each with a lock of its own.
  const std::shared_ptr<StatisticsStore> statistics_ = std::make_shared<StatisticsStore>();
  const std::shared_ptr<InterfaceTable> interfaces_ = std::make_shared<InterfaceTable>();
  const std::shared_ptr<KeyStore> keys_ = std::make_shared<KeyStore>();
  // What the service thread alone uses.
  SlaTaskMap tasks_;

  // Declared before the tests, whose timers and sockets live on its context.
  WorkerThreads workers_;
  const std::shared_ptr<Pacer> pacer_ = std::make_shared<Pacer>(workers_.Context());
  TestMap tests_;

  // The entrances for events, all on the service context.
  ApiServer server_;
  const std::shared_ptr<ClockWatch> clock_;
  NetlinkWatcher netlink_;
};

/// Ends the process at once with this exit status, with the log written out first. Threads: any.
/// Nothing is destroyed, because the other threads go on until the very end.
[[noreturn]] void ExitDaemon(int status);

}  // namespace ipsla

#endif  // IPSLA_API_API_SENDER_H_
