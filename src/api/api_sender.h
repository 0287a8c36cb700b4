// The daemon's central object: configuration, running tests, event loops, the Sender API.

#ifndef IPSLA_API_API_SENDER_H_
#define IPSLA_API_API_SENDER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/deadline_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/thread.hpp>

#include "api/help_funcs.h"
#include "api/netlink_watcher.h"
#include "api/sender_api_message.h"
#include "config/json_text.h"
#include "config/keychain.h"
#include "config/task_config.h"
#include "sender/interface_table.h"
#include "sender/sender.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// Worker threads started for every CPU that the tasks file lists.
inline constexpr std::size_t kThreadsPerCpu = 15;

/// Owns the tests, the worker context on which they run, and everything that the service context
/// serves: the API socket, the netlink sockets, the wall-clock watcher.
///
/// Threads: unless it says otherwise, an operation belongs to the service thread: the API thread
/// once it runs the service context, the main thread before that and after it has ended. Only that
/// thread changes the task map, the test map, the netlink sockets and the interface table.
///
/// Failures: a configuration that cannot be read is a status; a test or a VRF that cannot be set up
/// is an exception that nothing here catches. It ends the process, also from a reload: a
/// configuration that passed the parser but cannot be started is deliberately fatal.
///
/// The service context must outlive the object. A handler still queued there after Stop() does
/// nothing.
class ApiSender : private InterfaceObserver {
 public:
  /// Opens the API socket on 127.0.0.1 port 10101 and the wall-clock watcher. A failure is logged
  /// ("Sender api creation failed: ...") and leaves the object half set up: the daemon goes on
  /// measuring, but no request ever arrives (or, when only the watcher failed, the tests do not
  /// learn that the clock was set).
  ApiSender(boost::asio::io_context& service, std::string tasks_file, std::string keychain_file);

  /// Stop().
  ~ApiSender() override;  // NOLINT(bugprone-exception-escape): a log call does not throw

  ApiSender(const ApiSender&) = delete;
  ApiSender& operator=(const ApiSender&) = delete;

  /// Reads both files, dumps them and starts one test per task in ascending id. 0, or -1 after
  /// logging the reason.
  [[nodiscard]] int ParseConfigsAndStart();

  /// Starts the worker threads, the first time that there is a CPU to run them on. Threads: any.
  void StartMainLoop();

  /// Applies a reloaded tasks file: tests of new tasks start, tests of removed ones end, a changed
  /// task gets a new test and empty statistics, an unchanged one is not touched. Takes 10 ms per
  /// task. Always 0.
  [[nodiscard]] int UpdateTaskConfigs(const SlaTaskMap& new_tasks);

  /// Ends everything: stops all tests, closes every descriptor, joins the worker threads (within
  /// 100 ms or so: a sender between two probes wakes that often). Throws
  /// boost::system::system_error naming "cancel" or "close". May be called twice; nothing can be
  /// started again.
  void Stop();

  /// Begins to watch the interfaces of a VRF (NetlinkWatcher).
  void CreateNetlinkSocketInVrf(const std::string& vrf);

  /// The completion of the API socket's receive: executes one request and answers it.
  void ReceivePacket(const boost::system::error_code& error, std::size_t bytes);

  // What is there, for the service thread.

  [[nodiscard]] const SlaTaskMap& Tasks() const { return tasks_; }
  [[nodiscard]] const TestMap& Tests() const { return tests_; }
  [[nodiscard]] StatisticsStore& Statistics() { return *statistics_; }
  [[nodiscard]] const InterfaceTable& Interfaces() const { return *interfaces_; }
  [[nodiscard]] std::size_t WorkerThreadCount() const;
  /// Descriptor of the VRF's netlink socket, or -1 when the VRF is not watched.
  [[nodiscard]] int NetlinkHandle(const std::string& vrf) { return netlink_.NativeHandle(vrf); }

 private:
  // The API socket with what its pending receive writes to; the receive shares its ownership.
  struct Channel {
    explicit Channel(boost::asio::io_context& service) : socket(service) {}

    boost::asio::ip::udp::socket socket;
    boost::asio::ip::udp::endpoint requester;  // of the last request: where its reply goes
    std::array<std::uint8_t, kApiMaxDatagram> buffer{};
  };

  // A command's answer: failed, or a document to send, or (neither) the bare header.
  struct Answer {
    bool failed = false;
    JsonDocument document;
  };

  void OpenApiSocket();
  void OpenClockWatch();
  void ArmReceive();
  void WaitIdle();

  // Reads the tasks file and takes over its CPU list. 0, or -1 after logging.
  [[nodiscard]] int ReadTasksFile(SlaTaskMap* tasks);
  void StartTest(const SlaTaskConfig& task);
  void RemoveTask(std::uint16_t id);
  void ReplaceTask(const SlaTaskConfig& task);
  void EraseStatistics(std::uint16_t id);
  void ReleaseNetlinkSocket(const std::string& vrf);

  void HandleRequest(std::size_t bytes);
  [[nodiscard]] Answer Execute(std::uint16_t command, std::string_view text);
  [[nodiscard]] Answer AnswerQuery(ApiCommand command, std::string_view text);
  [[nodiscard]] Answer ReportStatistics(const std::optional<StatisticsRequest>& request);
  [[nodiscard]] Answer ReportStatus(const cJSON* body) const;
  [[nodiscard]] Answer ReloadTasks();
  [[nodiscard]] Answer ReloadKeychain();
  void SendJson(const ApiHeader& request, const cJSON* document);
  void SendHeader(const ApiHeader& request, std::uint16_t result);

  // InterfaceObserver: every change goes to every test in ascending id; each test knows whether it
  // is concerned.
  void UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                          std::uint32_t new_address, std::uint32_t old_address) override;
  void SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                         const std::optional<std::string>& if_name) override;

  const std::string tasks_file_;
  const std::string keychain_file_;

  const std::shared_ptr<StatisticsStore> statistics_ = std::make_shared<StatisticsStore>();
  const std::shared_ptr<InterfaceTable> interfaces_ = std::make_shared<InterfaceTable>();
  const std::shared_ptr<KeyStore> keys_ = std::make_shared<KeyStore>();
  SlaTaskMap tasks_;

  // Declared before the tests, whose timers and sockets live on it.
  boost::asio::io_context worker_;
  TestMap tests_;

  // The main thread starts the worker threads when the API thread runs already, and may at once
  // handle a reload.
  mutable std::mutex main_loop_mutex_;
  std::vector<std::uint8_t> cpus_;      // guarded by main_loop_mutex_
  bool started_ = false;                // likewise: the worker threads were started
  boost::thread_group worker_threads_;  // likewise
  boost::asio::deadline_timer idle_timer_;

  const std::shared_ptr<Channel> channel_;
  const std::shared_ptr<ClockWatch> clock_;
  NetlinkWatcher netlink_;
};

/// Ends the process at once with this exit status, with the log written out first. Threads: any.
/// Nothing is destroyed, because the other threads go on until the very end.
[[noreturn]] void ExitDaemon(int status);

}  // namespace ipsla

#endif  // IPSLA_API_API_SENDER_H_
