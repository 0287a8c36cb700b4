#include "api/api_sender.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <set>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/date_time/posix_time/posix_time_duration.hpp>
#include <boost/system/system_error.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/lock_guard.hpp>

#include "api/receive_outcome.h"
#include "api/sender_factory.h"
#include "config/print_funcs.h"
#include "config/sender_help_funcs.h"
#include "env/network_namespace.h"
#include "env/packet_stamps.h"
#include "env/process.h"
#include "env/time_values.h"
#include "log/error_limiter.h"
#include "log/log.h"

namespace ipsla {
namespace {

using boost::asio::ip::udp;

constexpr std::int64_t kReloadPauseNanoseconds = 10'000'000;
constexpr long kIdleSeconds = 99999999;

// A burst of 1000 requests of full size waits in the socket while a long reply goes out. The kernel
// counts about 17 kB for a datagram of 8192 bytes and doubles the figure that it is given.
constexpr int kApiReceiveBufferBytes = 16 * 1024 * 1024;

void EnlargeReceiveBuffer(int fd) {
  const int bytes = kApiReceiveBufferBytes;
  // The first needs privilege, the second is cut to the system's limit; both are only an attempt.
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0) return;
  static_cast<void>(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes));
}

// Both phases of a task run in one VRF.
const std::string& VrfOf(const SlaTaskConfig& task) {
  return task.measurement.vrf;
}

}  // namespace

ApiSender::ApiSender(boost::asio::io_context& service, std::string tasks_file,
                     std::string keychain_file)
    : tasks_file_(std::move(tasks_file)),
      keychain_file_(std::move(keychain_file)),
      idle_timer_(worker_),
      channel_(std::make_shared<Channel>(service)),
      clock_(std::make_shared<ClockWatch>(service, tests_)),
      netlink_(service, interfaces_, *this) {
  try {
    OpenApiSocket();
    OpenClockWatch();
  } catch (const std::exception& exception) {
    LOG_DEBUG(0, "Sender api creation failed: %s", exception.what());
  }
}

ApiSender::~ApiSender() {  // NOLINT(bugprone-exception-escape): a log call does not throw
  try {
    Stop();
  } catch (const std::exception& exception) {
    LOG_DEBUG(0, "Catch exception %s", exception.what());
  }
}

void ApiSender::OpenApiSocket() {
  udp::socket& socket = channel_->socket;
  socket.open(udp::v4());
  EnlargeReceiveBuffer(socket.native_handle());
  // Not for this socket's sake: the kernel stamps packets at all only while some socket asks for
  // it, and takes a moment to begin. This one lives as long as the daemon and so keeps the stamping
  // on between the runs of the tests.
  EnableReceiveStamps(socket.native_handle());
  socket.bind(udp::endpoint(boost::asio::ip::address_v4::loopback(), kApiPort));
  ArmReceive();
}

void ApiSender::OpenClockWatch() {
  const int fd = CreateClockDescriptor();
  boost::system::error_code error;
  clock_->descriptor.assign(fd, error);
  if (error) {
    close(fd);
    throw boost::system::system_error(error, "assign");
  }
  WaitForClockChange(clock_);
}

void ApiSender::ArmReceive() {
  channel_->socket.async_receive_from(
      boost::asio::buffer(channel_->buffer), channel_->requester,
      [this, channel = channel_](const boost::system::error_code& error, std::size_t bytes) {
        // Checked first: once the socket is closed, the object itself may be gone.
        if (channel->socket.is_open()) ReceivePacket(error, bytes);
      });
}

int ApiSender::ParseConfigsAndStart() {
  KeychainStorage keys;
  if (ParseKeychainConfig(keychain_file_, &keys) != 0) {
    LOG_DEBUG(0, "ParseKeychainConfigs() failed");
    return -1;
  }
  keys_->Replace(std::move(keys));
  const auto snapshot = keys_->Snapshot();
  if (ReadTasksFile(&tasks_) != 0) return -1;
  PrintTaskConfigs(tasks_, *snapshot);
  PrintKeychain(*snapshot);
  for (const auto& [id, task] : tasks_) StartTest(task);
  return 0;
}

int ApiSender::ReadTasksFile(SlaTaskMap* tasks) {
  std::vector<std::uint8_t> cpus;
  if (ParseTaskConfigs(tasks_file_, tasks, *keys_->Snapshot(), &cpus) != 0) {
    LOG_DEBUG(0, "ParseTaskConfigs() failed");
    return -1;
  }
  const std::lock_guard lock(main_loop_mutex_);
  cpus_ = std::move(cpus);
  return 0;
}

void ApiSender::StartMainLoop() {
  const std::lock_guard lock(main_loop_mutex_);
  if (started_ || cpus_.empty()) return;
  started_ = true;
  idle_timer_.expires_from_now(boost::posix_time::seconds(kIdleSeconds));
  WaitIdle();
  boost::thread::attributes attributes;
  attributes.set_stack_size(ThreadStackBytes());
  try {
    for (const std::uint8_t cpu : cpus_) {
      for (std::size_t count = 0; count < kThreadsPerCpu; ++count) {
        auto thread = std::make_unique<boost::thread>(attributes, [this] { worker_.run(); });
        SetCpuNum(thread->native_handle(), cpu);
        worker_threads_.add_thread(thread.get());
        static_cast<void>(thread.release());  // the group's now
      }
    }
  } catch (const boost::thread_resource_error& exception) {
    LOG_DEBUG(0, "Start main loop failed: %s", exception.what());
  }
}

std::size_t ApiSender::WorkerThreadCount() const {
  const std::lock_guard lock(main_loop_mutex_);
  return worker_threads_.size();
}

// Keeps the worker context from running out of work while no test waits for anything.
void ApiSender::WaitIdle() {
  idle_timer_.async_wait([this](const boost::system::error_code& error) {
    if (error == boost::asio::error::operation_aborted) return;
    idle_timer_.expires_at(idle_timer_.expires_at() + boost::posix_time::seconds(kIdleSeconds));
    WaitIdle();
  });
}

void ApiSender::StartTest(const SlaTaskConfig& task) {
  CreateNetlinkSocketInVrf(VrfOf(task));
  const boost::shared_ptr<Sender> test =
      CreateSender(worker_, task, {statistics_, interfaces_, keys_});
  tests_[task.sla_id] = test;
  AddErrorLimits(task.sla_id);
  test->Schedule();
}

int ApiSender::UpdateTaskConfigs(const SlaTaskMap& new_tasks) {
  std::set<std::int32_t> ids;
  for (const auto& [id, task] : new_tasks) ids.insert(id);
  for (const auto& [id, task] : tasks_) ids.insert(id);
  for (const std::int32_t id : ids) {
    SleepUntil(SteadyNanoseconds() + kReloadPauseNanoseconds);
    const auto wanted = new_tasks.find(id);
    const auto current = tasks_.find(id);
    if (wanted == new_tasks.end()) {
      RemoveTask(current->second.sla_id);
    } else if (current == tasks_.end()) {
      tasks_[id] = wanted->second;
      StartTest(wanted->second);
    } else if (current->second != wanted->second) {
      ReplaceTask(wanted->second);
    }
  }
  return 0;
}

void ApiSender::RemoveTask(std::uint16_t id) {
  const std::string vrf = VrfOf(tasks_[id]);
  if (const auto node = tests_.extract(id)) node.mapped()->Stop(true);
  // First out of the task map, then the VRF: the last task of a VRF would otherwise keep its socket
  // open.
  tasks_.erase(id);
  ReleaseNetlinkSocket(vrf);
  EraseStatistics(id);
  // Task 0 writes into the daemon's own file, which stays open.
  if (id != 0) CloseLogFile(id);
  RemoveErrorLimits(id);
}

void ApiSender::ReplaceTask(const SlaTaskConfig& task) {
  const auto old_test = tests_.extract(task.sla_id);
  const std::string old_vrf = VrfOf(tasks_[task.sla_id]);
  // Ends the old test's run at once: nothing of it is stored after this, so the statistics stay
  // erased, and its source ports are free for the new test.
  if (old_test) old_test.mapped()->Stop(false);
  tasks_[task.sla_id] = task;
  EraseStatistics(task.sla_id);
  StartTest(task);
  if (old_test) old_test.mapped()->Stop(true);
  ReleaseNetlinkSocket(old_vrf);
}

void ApiSender::EraseStatistics(std::uint16_t id) {
  const boost::lock_guard<boost::mutex> lock(statistics_->mutex);
  statistics_->tasks.erase(id);
}

void ApiSender::ReleaseNetlinkSocket(const std::string& vrf) {
  for (const auto& [id, task] : tasks_) {
    if (VrfKey(VrfOf(task)) == VrfKey(vrf)) return;
  }
  netlink_.Release(vrf);
}

void ApiSender::CreateNetlinkSocketInVrf(const std::string& vrf) {
  netlink_.CreateNetlinkSocketInVrf(vrf);
}

void ApiSender::UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                                   std::uint32_t new_address, std::uint32_t old_address) {
  for (const auto& [id, test] : tests_)
    test->UpdateLocalAddress(vrf_key, if_index, new_address, old_address);
}

void ApiSender::SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                                  const std::optional<std::string>& if_name) {
  for (const auto& [id, test] : tests_) test->SetInterfaceIndex(vrf_key, if_index, if_name);
}

void ApiSender::Stop() {
  netlink_.Close();
  CloseClockWatch(*clock_);
  for (const auto& [id, test] : tests_) {
    try {
      test->Stop(true);
    } catch (const std::exception& exception) {
      LOG_DEBUG(0, "Catch exception on test %d: %s.", static_cast<int>(id), exception.what());
    }
  }
  worker_.stop();
  {
    const std::lock_guard lock(main_loop_mutex_);
    started_ = true;  // none is started any more
    worker_threads_.join_all();
  }
  // Only now: while worker threads run, the timer is theirs.
  idle_timer_.cancel();
  channel_->socket.close();
}

void ExitDaemon(int status) {
  ShutdownLog();
  // Not exit(3): it would run the destructors of every library while the worker threads still use
  // them, and a crash there would change the exit status.
  std::_Exit(status);
}

}  // namespace ipsla
