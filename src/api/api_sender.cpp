#include "api/api_sender.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <set>
#include <utility>
#include <vector>

#include <boost/system/system_error.hpp>

#include "api/creation_note.h"
#include "api/sender_factory.h"
#include "config/print_funcs.h"
#include "config/sender_help_funcs.h"
#include "env/descriptor.h"
#include "env/keep_alive.h"
#include "env/network_namespace.h"
#include "env/time_values.h"
#include "log/error_limiter.h"
#include "log/log.h"

namespace ipsla {
namespace {

constexpr std::chrono::milliseconds kReloadPause{10};

// Both phases of a task run in one VRF.
const std::string& VrfOf(const SlaTaskConfig& task) {
  return task.measurement.vrf;
}

}  // namespace

ApiSender::ApiSender(boost::asio::io_context& service, std::string tasks_file,
                     std::string keychain_file)
    : tasks_file_(std::move(tasks_file)),
      keychain_file_(std::move(keychain_file)),
      server_(service, {.tasks = tasks_,
                        .statistics = *statistics_,
                        .reload_tasks = [this] { return ReloadTasks(); },
                        .reload_keychain = [this] { return ReloadKeychain(); }}),
      clock_(std::make_shared<ClockWatch>(service, tests_)),
      netlink_(service, interfaces_, *this) {
  std::string missing = "no API on 127.0.0.1:" + std::to_string(kApiPort);
  try {
    server_.Open();
    missing = "tests do not start over when the clock is set";
    OpenClockWatch();
  } catch (const std::exception& exception) {
    LOG_DEBUG(0, "Sender api creation failed: %s", exception.what());
    creation_fault_ = missing + ": " + exception.what();
  }
}

ApiSender::~ApiSender() {  // NOLINT(bugprone-exception-escape): a log call does not throw
  try {
    Stop();
  } catch (const std::exception& exception) {
    LOG_DEBUG(0, "Catch exception %s", exception.what());
  }
}

void ApiSender::OpenClockWatch() {
  Descriptor timer = CreateClockDescriptor();
  boost::system::error_code error;
  clock_->descriptor.assign(timer.Get(), error);
  if (error) throw boost::system::system_error(error, "assign");
  static_cast<void>(timer.Release());  // the watch's now
  WaitForClockChange(clock_);
}

int ApiSender::ParseConfigsAndStart() {
  KeychainStorage keys;
  if (ParseKeychainConfig(keychain_file_, &keys, &file_fault_) != 0) {
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
  if (ParseTaskConfigs(tasks_file_, tasks, *keys_->Snapshot(), &cpus, &file_fault_) != 0) {
    LOG_DEBUG(0, "ParseTaskConfigs() failed");
    return -1;
  }
  workers_.SetCpus(std::move(cpus));
  return 0;
}

bool ApiSender::ReloadTasks() {
  SlaTaskMap new_tasks;
  if (ReadTasksFile(&new_tasks) != 0) return false;
  // First, so that new tests find the addresses of a VRF that was made again.
  netlink_.CheckVrfs();
  StartMainLoop();
  if (UpdateTaskConfigs(new_tasks) != 0) {
    LOG_DEBUG(0, "UpdateTaskConfigs() failen");
    return false;
  }
  PrintTaskConfigs(tasks_, *keys_->Snapshot());
  return true;
}

bool ApiSender::ReloadKeychain() {
  KeychainStorage keys;
  if (ParseKeychainConfig(keychain_file_, &keys, &file_fault_) != 0) {
    LOG_DEBUG(0, "ParseKeychainConfigs() failed");
    std::fprintf(stderr, "ip-sla-sender: %s\n", file_fault_.c_str());
    ExitDaemon(EXIT_FAILURE);
  }
  keys_->Replace(std::move(keys));
  PrintKeychain(*keys_->Snapshot());
  return true;
}

void ApiSender::StartTest(const SlaTaskConfig& task) {
  const CreationNote note(task);
  netlink_.CreateNetlinkSocketInVrf(VrfOf(task));
  const boost::shared_ptr<Sender> test =
      CreateSender(workers_.Context(), task, {statistics_, interfaces_, keys_, pacer_});
  tests_[task.sla_id] = test;
  AddErrorLimits(task.sla_id);
  test->Schedule();
}

int ApiSender::UpdateTaskConfigs(const SlaTaskMap& new_tasks) {
  std::set<std::int32_t> ids;
  for (const auto& [id, task] : new_tasks) ids.insert(id);
  for (const auto& [id, task] : tasks_) ids.insert(id);
  for (const std::int32_t id : ids) {
    SleepUntil(SteadyNow() + kReloadPause);
    SignalKeepAlive();  // thousands of tasks take longer than the watchdog is patient
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
  const MutexLock lock(statistics_->mutex);
  statistics_->tasks.erase(id);
}

void ApiSender::ReleaseNetlinkSocket(const std::string& vrf) {
  for (const auto& [id, task] : tasks_) {
    if (VrfKey(VrfOf(task)) == VrfKey(vrf)) return;
  }
  netlink_.Release(vrf);
}

void ApiSender::UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                                   std::uint32_t new_address, std::uint32_t old_address) {
  for (const auto& [id, test] : tests_) {
    test->UpdateLocalAddress(vrf_key, if_index, new_address, old_address);
  }
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
  pacer_->Stop();
  workers_.Stop();
  server_.Close();
}

void ExitDaemon(int status) {
  ShutdownLog();
  // Not exit(3): it would run the destructors of every library while the worker threads still use
  // them, and a crash there would change the exit status.
  std::_Exit(status);
}

}  // namespace ipsla
