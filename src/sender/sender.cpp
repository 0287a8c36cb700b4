#include "sender/sender.h"

#include <net/if.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <utility>

#include <boost/asio/ip/address_v4.hpp>

#include "env/network_namespace.h"
#include "env/process.h"
#include "log/error_limiter.h"
#include "log/log.h"
#include "sender/metric_report.h"
#include "sender/schedule.h"
#include "sender/sender_metric_funcs.h"

namespace ipsla {
namespace {

// Interface index of an endpoint that was given an address of an interface not known yet.
constexpr std::uint32_t kUnknownInterface = 0xFFFFFFFFU;

boost::asio::ip::address ToAddress(in_addr address) {
  return boost::asio::ip::make_address_v4(ntohl(address.s_addr));
}

in_addr GivenAddress(const SlaEndpointConfig& endpoint) {
  return endpoint.if_index == 0 && endpoint.if_name.empty() ? endpoint.src.sin_addr : in_addr{};
}

// As the timer takes them: kept-behaviours.md#long-waits-wrap
std::uint32_t ToMilliseconds(std::uint32_t seconds) {
  return seconds * 1000U;
}

}  // namespace

const Sender::TimerHandler Sender::kNewStart{"NewStart", [](Sender& test) {
                                               test.mutex_.AssertHeld();
                                               test.NewStart();
                                             }};

const Sender::TimerHandler Sender::kTestStop{"TestStop", [](Sender& test) {
                                               test.mutex_.AssertHeld();
                                               test.EndByTimeout();
                                             }};

Sender::Sender(boost::asio::io_context& worker, const SlaTaskConfig& task, SenderContext context,
               const ProbeCalls& calls)
    : id_(task.sla_id),
      type_(task.sla_type),
      num_packets_(task.num_packets),
      packet_size_(task.packet_size),
      context_(std::move(context)),
      config_(task),
      socket_(worker),
      send_buffer_(std::max<std::size_t>(task.packet_size, kMinBufferBytes)),
      receive_buffer_(send_buffer_.size()),
      ring_(task.num_packets),
      calls_(calls),
      given_control_(GivenAddress(task.control_phase)),
      given_measurement_(GivenAddress(task.measurement)),
      timer_(worker) {
  FollowGivenAddresses();
  OpenLogFile(id_);
}

// A source given by address is on whichever interface has it now: since the last run it may have
// moved, or gone and come back, and its interface may have another name.
void Sender::FollowGivenAddresses() {
  FollowGivenAddress(&config_.measurement, given_measurement_);
  FollowGivenAddress(&config_.control_phase, given_control_);
}

void Sender::FollowGivenAddress(SlaEndpointConfig* endpoint, in_addr given) const {
  if (given.s_addr == 0) return;
  const std::string vrf_key = VrfKey(endpoint->vrf);
  auto found = context_.interfaces->Find(ToAddress(endpoint->src.sin_addr), vrf_key);
  if (!found) {
    found = context_.interfaces->Find(ToAddress(given), vrf_key);
    if (found) endpoint->src.sin_addr = given;
  }
  if (!found || found->index == 0) return;
  endpoint->if_index = static_cast<std::uint32_t>(found->index);
  endpoint->if_name = found->name;
}

void Sender::FillPadding(std::size_t header, std::size_t end) {
  for (std::size_t i = header; i < end; ++i) {
    send_buffer_[i] = static_cast<std::uint8_t>(std::rand());
  }
}

void Sender::Schedule() {
  const Lock lock(*this);
  const auto first = ComputeFirstStart(config_.scheduler, RealTimeNow());
  if (!first) return;
  scheduled_ = true;
  end_of_life_ = first->end_of_life;
  StartFuncTimeout(kNewStart, first->delay_ms);
}

void Sender::StartFuncTimeout(const TimerHandler& handler, std::uint32_t milliseconds) {
  LOG_DEBUG(id_, "func '%s' timeout %d ms", handler.name, static_cast<std::int32_t>(milliseconds));
  timer_.Arm(std::chrono::milliseconds(milliseconds),
             [self = shared_from_this(), handler](RunTimer::Ticket ticket) {
               self->OnTimer(ticket, handler);
             });
}

void Sender::OnTimer(RunTimer::Ticket ticket, const TimerHandler& handler) {
  const BelowPacing priority(context_.pacer->IsOnDutyHere());
  const Lock lock(*this);
  if (timer_.IsCurrent(ticket)) handler.run(*this);
}

void Sender::NewStart() {
  // Stopped for good; or a negative life time: never started, also not by a clock or address
  // change.
  if (stopped_ || !scheduled_) return;
  if (reporting_) {
    start_after_report_ = true;
  } else if (!CheckSourceAddress()) {
    CalcMetric(NextRun::kAfterTime);
  } else if (!IsStoppedLocked()) {
    StartTest();
  }
}

bool Sender::CheckSourceAddress() {
  FollowGivenAddresses();
  const SlaEndpointConfig& measurement = config_.measurement;
  const auto found =
      context_.interfaces->Find(ToAddress(measurement.src.sin_addr), VrfKey(measurement.vrf));
  if (found && (found->flags & IFF_RUNNING) != 0) return true;
  BeginRun();
  metrics_.error_description = "source address or interface not exist";
  metrics_.status = RunResult::kFail;
  return false;
}

void Sender::BeginRun() {
  ++run_;
  ring_.Clear();
  receiving_ = true;
  stamp_base_ = 1;
  deadline_ = SteadyTime::max();
  std::ranges::fill(receive_buffer_, std::uint8_t{0});
  run_start_ = SteadyNow();
  run_start_real_ = RealTimeNow();
  metrics_.start_time = run_start_real_.tv_sec;
  ResetMetrics(type_, &metrics_);
}

void Sender::FailRun(const std::string& error_description) {
  metrics_.error_description = error_description;
  metrics_.status = RunResult::kFail;
  CalcMetric();
}

void Sender::FailStart(const std::string& reason) {
  if (IsErrorLogAllowed(id_, ErrorKind::kStart)) {
    LOG_ERROR(id_, "(test %d) %s", id_, reason.c_str());
  }
  FailRun("Start test failed");
}

void Sender::EndByTimeout() {
  // A reply that has arrived in time counts even if no thread was free to take it.
  const RunNumber run = run_;
  static_cast<void>(TakeReplies(MostThatWait()));
  // kept-behaviours.md#the-run-that-outlives-its-task-is-not-stored
  if (run != run_ || IsStoppedLocked()) return;
  const auto wanted = static_cast<std::uint32_t>(num_packets_);
  if (ring_.Sent() < wanted) {
    LOG_DEBUG(id_, "%u of %d probes not sent", wanted - ring_.Sent(), num_packets_);
  }
  CalcMetric();
}

// The run is taken to have ended on the steady clock, and at its deadline when its end was noticed
// late: neither a clock that was set nor a busy machine makes the next start wait.
std::uint32_t Sender::SecondsToNextRun() const {
  const std::chrono::nanoseconds elapsed = std::min(SteadyNow(), deadline_) - run_start_;
  const std::int64_t finish =
      (ToNanoseconds(run_start_real_) + elapsed.count()) / kNanosecondsPerSecond;
  // Unsigned 32 bits: kept-behaviours.md#a-run-longer-than-its-period-stops-the-task-for-weeks
  return static_cast<std::uint32_t>(config_.scheduler.time) +
         static_cast<std::uint32_t>(metrics_.start_time) - static_cast<std::uint32_t>(finish);
}

void Sender::CalcMetric(NextRun next) {
  metrics_.finish_time = RealTimeNow().tv_sec;
  std::uint32_t delay = SecondsToNextRun();
  try {
    TakeDepartures();
    StopLocked(false);
    if (ring_.Received() == 0) {
      const bool never_began = metrics_.status == RunResult::kFail;
      if (never_began && next == NextRun::kByOutcome) {
        delay = static_cast<std::uint32_t>(config_.control_retry);
      }
      ClearFailedRun();
    }
    const RunNumber ended = run_;
    ReportRun();
    if (std::exchange(start_after_report_, false)) {
      NewStart();
    } else if (ended == run_) {
      StartFuncTimeout(kNewStart, ToMilliseconds(delay));
    }
  } catch (const std::exception& error) {
    LOG_DEBUG(id_, "Catch exception on test %d: %s.", id_, error.what());
  }
}

// Of a run without replies only its outcome is kept.
void Sender::ClearFailedRun() {
  if (metrics_.status != RunResult::kFail) {
    metrics_.error_description = "timeout, no samples";
    metrics_.status = RunResult::kFail;
  }
  SlaTaskMetrics failed;
  failed.status = metrics_.status;
  failed.error_description = metrics_.error_description;
  failed.start_time = metrics_.start_time;
  failed.finish_time = metrics_.finish_time;
  metrics_ = failed;
}

// Computing and reporting a large run takes long: nobody who needs the mutex waits for it, nor does
// a thread whose duty begins meanwhile.
void Sender::ReportRun() {
  constexpr std::size_t kLarge = 1000;
  const BelowPacing priority(ring_.Slots() > kLarge || context_.pacer->IsOnDutyHere());
  const SlaTaskConfig config = config_;
  const bool has_replies = ring_.Received() != 0;
  reporting_ = true;
  mutex_.unlock();
  try {
    if (has_replies) CalcTestMetric();
    StoreRun(config);
  } catch (...) {
    mutex_.lock();
    reporting_ = false;
    throw;
  }
  mutex_.lock();
  reporting_ = false;
}

void Sender::StoreRun(const SlaTaskConfig& config) {
  const MutexLock lock(context_.statistics->mutex);
  // The task was removed or changed meanwhile, and its statistics may be erased already.
  if (withdrawn_) return;
  SlaTaskStatistics& statistics = context_.statistics->tasks[id_];
  while (!statistics.history.empty() && statistics.history.size() >= config.num_rep_hist) {
    statistics.history.pop_front();
  }
  statistics.history.push_back(metrics_);
  statistics.last = GetMetrics(statistics.history);
  if (metrics_.status != RunResult::kFail) {
    ++statistics.successful_count;
  } else {
    ++statistics.failed_count;
  }
  PrintMetric(config, statistics.last);
}

SlaTaskMetrics Sender::LatestOf(const std::list<SlaTaskMetrics>& history) const {
  const bool aggregated = IsJitterType(type_) && metrics_.status == RunResult::kSuccessful;
  return aggregated ? AggregateHistory(history) : metrics_;
}

void Sender::Stop(bool final) {
  const Lock lock(*this);
  withdrawn_ = true;
  StopLocked(final);
}

void Sender::StopLocked(bool final) {
  if (final) stopped_ = true;
  // First the numbers, so that the run is over for every late handler even if closing a socket
  // fails.
  ++run_;
  start_after_report_ = false;
  CancelTimer();
  CloseSockets();
}

void Sender::Restart() {
  const Lock lock(*this);
  try {
    StopLocked(false);
    StartFuncTimeout(kNewStart, ToMilliseconds(static_cast<std::uint32_t>(config_.scheduler.time)));
  } catch (const std::exception& error) {
    LOG_DEBUG(id_, "Catch exception on test %d: %s.", id_, error.what());
  }
}

// Both phases of a task run in one VRF.
bool Sender::IsInVrf(const std::string& vrf_key) const {
  return VrfKey(config_.measurement.vrf) == vrf_key;
}

void Sender::UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                                std::uint32_t new_address, std::uint32_t old_address) {
  const Lock lock(*this);
  if (!IsInVrf(vrf_key)) return;
  SlaEndpointConfig& control = config_.control_phase;
  SlaEndpointConfig& measurement = config_.measurement;
  if (control.if_index == kUnknownInterface && measurement.if_index == kUnknownInterface &&
      new_address == control.src.sin_addr.s_addr &&
      new_address == measurement.src.sin_addr.s_addr) {
    control.if_index = if_index;
    measurement.if_index = if_index;
    return;
  }
  bool concerned = false;
  for (SlaEndpointConfig* endpoint : {&control, &measurement}) {
    if (endpoint->if_index != if_index) continue;
    concerned = true;
    in_addr_t& source = endpoint->src.sin_addr.s_addr;
    if (source == old_address) source = new_address;
  }
  if (!concerned) return;
  try {
    StopLocked(false);
    StartFuncTimeout(kNewStart, 0);
  } catch (const std::exception& error) {
    LOG_DEBUG(id_, "Catch exception on test %d: %s.", id_, error.what());
  }
}

void Sender::SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                               const std::optional<std::string>& if_name) {
  const Lock lock(*this);
  if (!IsInVrf(vrf_key)) return;
  for (SlaEndpointConfig* endpoint : {&config_.control_phase, &config_.measurement}) {
    if (if_name) {
      if (endpoint->if_name == *if_name) endpoint->if_index = if_index;
    } else if (endpoint->if_index == if_index) {
      endpoint->if_index = 0;
    }
  }
}

bool Sender::IsStopped() {
  const Lock lock(*this);
  return IsStoppedLocked();
}

bool Sender::IsStoppedLocked() const {
  return ToNanoseconds(RealTimeNow()) > end_of_life_ || stopped_;
}

}  // namespace ipsla
