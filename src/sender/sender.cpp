#include "sender/sender.h"

#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/thread/lock_guard.hpp>

#include "env/network_namespace.h"
#include "env/time_values.h"
#include "log/error_limiter.h"
#include "log/log.h"
#include "sender/metric_report.h"
#include "sender/schedule.h"
#include "sender/sender_metric_funcs.h"

namespace ipsla {
namespace {

// Interface index of an endpoint that was given an address of an interface not known yet.
constexpr std::uint32_t kUnknownInterface = 0xFFFFFFFFU;

// A sleeping sender looks this often whether its run is over, so that a stopped test soon frees its
// thread.
constexpr std::int64_t kMaxSleepNanoseconds = 100'000'000;

constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

boost::asio::ip::address ToAddress(in_addr address) {
  return boost::asio::ip::make_address_v4(ntohl(address.s_addr));
}

std::int64_t NowSeconds() {
  return RealTimeNow().tv_sec;
}

// Seconds as the timer takes them; a value too large for 32 bits of milliseconds wraps,
// deliberately.
std::uint32_t ToMilliseconds(std::uint32_t seconds) {
  return seconds * 1000U;
}

}  // namespace

const Sender::TimerHandler Sender::kNewStart{"NewStart", [](Sender& test) { test.NewStart(); }};

Sender::Sender(boost::asio::io_context& worker, const SlaTaskConfig& task, SenderContext context)
    : worker_(worker),
      context_(std::move(context)),
      config_(task),
      packets_(static_cast<std::size_t>(std::max(task.num_packets, 1))),
      send_buffer_(std::max<std::size_t>(task.packet_size, kMinBufferBytes)),
      receive_buffer_(send_buffer_.size()),
      timer_(worker) {
  CompleteSourceInterface(&config_.measurement);
  CompleteSourceInterface(&config_.control_phase);
  OpenLogFile(config_.sla_id);
}

void Sender::CompleteSourceInterface(SlaEndpointConfig* endpoint) const {
  if (endpoint->if_index != 0) return;
  const auto found =
      context_.interfaces->Find(ToAddress(endpoint->src.sin_addr), VrfKey(endpoint->vrf));
  if (!found || found->index == 0) return;
  endpoint->if_index = static_cast<std::uint32_t>(found->index);
  endpoint->if_name = found->name;
}

void Sender::Schedule() {
  const std::lock_guard lock(mutex_);
  const auto first = ComputeFirstStart(config_.scheduler, RealTimeNow());
  if (!first) return;
  scheduled_ = true;
  end_of_life_ = first->end_of_life;
  StartFuncTimeout(kNewStart, first->delay_ms);
}

void Sender::StartFuncTimeout(const TimerHandler& handler, std::uint32_t milliseconds) {
  LOG_DEBUG(config_.sla_id, "func '%s' timeout %d ms", handler.name,
            static_cast<std::int32_t>(milliseconds));
  const auto self = shared_from_this();
  timer_.expires_after(std::chrono::milliseconds(milliseconds));
  const std::uint64_t ticket = ++timer_ticket_;
  timer_.async_wait([self, ticket, handler](const boost::system::error_code& error) {
    self->OnTimer(error, ticket, handler);
  });
}

void Sender::OnTimer(const boost::system::error_code& error, std::uint64_t ticket,
                     const TimerHandler& handler) {
  if (error) return;
  const std::lock_guard lock(mutex_);
  // A wait that was replaced or cancelled may already have expired and stand in the queue: it must
  // do nothing.
  if (ticket != timer_ticket_) return;
  handler.run(*this);
}

void Sender::NewStart() {
  // Stopped for good; or a negative life time: never started, also not by a clock or address
  // change.
  if (stopped_ || !scheduled_) return;
  if (!CheckSourceAddress()) {
    CalcMetric(NextRun::kAfterTime);
  } else if (!IsStoppedLocked()) {
    StartTest();
  }
}

bool Sender::CheckSourceAddress() {
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
  packets_sent_ = 0;
  packets_received_ = 0;
  receiving_ = true;
  last_send_steady_ = 0;
  std::ranges::fill(packets_, SlaPacketRecord{});
  std::ranges::fill(receive_buffer_, std::uint8_t{0});
  metrics_.start_time = NowSeconds();
  ResetMetrics(config_.sla_type, &metrics_);
}

void Sender::FailRun(const std::string& error_description) {
  metrics_.error_description = error_description;
  metrics_.status = RunResult::kFail;
  CalcMetric();
}

void Sender::EndByTimeout() {
  if (!IsStoppedLocked()) CalcMetric();
}

void Sender::CalcMetric(NextRun next) {
  metrics_.finish_time = NowSeconds();
  // Unsigned 32 bits: a run that lasted longer than "time" wraps to a very long wait, deliberately.
  std::uint32_t delay = static_cast<std::uint32_t>(config_.scheduler.time) +
                        static_cast<std::uint32_t>(metrics_.start_time) -
                        static_cast<std::uint32_t>(metrics_.finish_time);
  try {
    StopLocked(false);
    if (packets_received_ != 0) {
      CalcTestMetric();
    } else {
      if (metrics_.status != RunResult::kFail) {
        metrics_.error_description = "timeout, no samples";
        metrics_.status = RunResult::kFail;
      } else if (next == NextRun::kByOutcome) {
        delay = static_cast<std::uint32_t>(config_.control_retry);
      }
      SlaTaskMetrics failed;
      failed.status = metrics_.status;
      failed.error_description = metrics_.error_description;
      failed.start_time = metrics_.start_time;
      failed.finish_time = metrics_.finish_time;
      metrics_ = failed;
    }
    StoreRun();
    StartFuncTimeout(kNewStart, ToMilliseconds(delay));
  } catch (const std::exception& error) {
    LOG_DEBUG(config_.sla_id, "Catch exception on test %d: %s.", config_.sla_id, error.what());
  }
}

void Sender::StoreRun() {
  const boost::lock_guard<boost::mutex> lock(context_.statistics->mutex);
  SlaTaskStatistics& statistics = context_.statistics->tasks[config_.sla_id];
  while (!statistics.history.empty() && statistics.history.size() >= config_.num_rep_hist) {
    statistics.history.pop_front();
  }
  statistics.history.push_back(metrics_);
  statistics.last = GetMetrics(statistics.history);
  if (metrics_.status != RunResult::kFail) {
    ++statistics.successful_count;
  } else {
    ++statistics.failed_count;
  }
  PrintMetric(config_, statistics.last);
}

void Sender::Stop(bool final) {
  const std::lock_guard lock(mutex_);
  StopLocked(final);
}

void Sender::StopLocked(bool final) {
  if (final) stopped_ = true;
  // First the numbers, so that the run is over for every late handler even if closing a socket
  // fails.
  ++run_;
  CancelTimer();
  CloseSockets();
}

void Sender::CancelTimer() {
  ++timer_ticket_;
  timer_.cancel();
}

void Sender::Restart() {
  const std::lock_guard lock(mutex_);
  try {
    StopLocked(false);
    StartFuncTimeout(kNewStart, ToMilliseconds(static_cast<std::uint32_t>(config_.scheduler.time)));
  } catch (const std::exception& error) {
    LOG_DEBUG(config_.sla_id, "Catch exception on test %d: %s.", config_.sla_id, error.what());
  }
}

// Both phases of a task run in one VRF.
bool Sender::IsInVrf(const std::string& vrf_key) const {
  return VrfKey(config_.measurement.vrf) == vrf_key;
}

void Sender::UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                                std::uint32_t new_address, std::uint32_t old_address) {
  const std::lock_guard lock(mutex_);
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
  const bool control_concerned = control.if_index == if_index;
  const bool measurement_concerned = measurement.if_index == if_index;
  if (!control_concerned && !measurement_concerned) return;
  if (control_concerned && control.src.sin_addr.s_addr == old_address)
    control.src.sin_addr.s_addr = new_address;
  if (measurement_concerned && measurement.src.sin_addr.s_addr == old_address) {
    measurement.src.sin_addr.s_addr = new_address;
  }
  try {
    StopLocked(false);
    StartFuncTimeout(kNewStart, 0);
  } catch (const std::exception& error) {
    LOG_DEBUG(config_.sla_id, "Catch exception on test %d: %s.", config_.sla_id, error.what());
  }
}

void Sender::SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                               const std::optional<std::string>& if_name) {
  const std::lock_guard lock(mutex_);
  if (!IsInVrf(vrf_key)) return;
  for (SlaEndpointConfig* endpoint : {&config_.control_phase, &config_.measurement}) {
    if (if_name) {
      if (endpoint->if_name == *if_name) endpoint->if_index = if_index;
    } else if (endpoint->if_index == if_index) {
      endpoint->if_index = 0;
    }
  }
}

bool Sender::IsStopped() const {
  const std::lock_guard lock(mutex_);
  return IsStoppedLocked();
}

bool Sender::IsStoppedLocked() const {
  return ToNanoseconds(RealTimeNow()) > end_of_life_ || stopped_;
}

SlaPacketRecord& Sender::OpenRecord(std::uint32_t sequence, const timespec& now) {
  SlaPacketRecord& record = packets_[SlotOf(sequence)];
  record.ss = sequence;
  record.state = SlaPacketState::kSent;
  record.send_ms = MillisecondsOfDay(now);
  last_send_steady_ = SteadyNanoseconds();
  return record;
}

SlaPacketRecord* Sender::FindSent(std::uint32_t sequence) {
  SlaPacketRecord& record = packets_[SlotOf(sequence)];
  return record.ss == 0 ? nullptr : &record;
}

void Sender::AcceptReply(SlaPacketRecord* record) {
  ++metrics_.ds_pkt_count;
  record->id = packets_received_;
  ++packets_received_;
  record->state = SlaPacketState::kReceived;
}

void Sender::FailStart(const std::string& reason) {
  if (IsErrorLogAllowed(config_.sla_id, ErrorKind::kStart)) {
    LOG_ERROR(config_.sla_id, "(test %d) %s", config_.sla_id, reason.c_str());
  }
  FailRun("Start test failed");
}

void Sender::PacedSend(const boost::system::error_code& error, RunNumber run,
                       std::int64_t granularity_ns, const std::function<void()>& send_probe) {
  std::int64_t pause = 0;
  {
    const std::lock_guard lock(mutex_);
    if (run != run_ || error == boost::asio::error::operation_aborted) return;
    if (error) {
      LOG_DEBUG(config_.sla_id, "SendPacket failed on test %d: %s", config_.sla_id,
                error.message().c_str());
      return;
    }
    pause = PauseNanoseconds() / granularity_ns * granularity_ns;
  }
  if (!Pace(run, pause)) return;
  const std::lock_guard lock(mutex_);
  if (run == run_) send_probe();
}

bool Sender::DrainReplies(int fd, std::size_t size,
                          const std::function<bool(const StampedDatagram&)>& take,
                          std::size_t most) {
  const RunNumber run = run_;
  for (std::size_t taken = 0; receiving_ && taken < most; ++taken) {
    int error = 0;
    const auto datagram =
        ReceiveStamped(fd, receive_buffer_.data(), std::min(size, receive_buffer_.size()), &error);
    if (!datagram) {
      if (error == EAGAIN || error == EWOULDBLOCK) return true;
      LOG_DEBUG(config_.sla_id, "ReceivePacket failed on test %d: %s", config_.sla_id,
                std::strerror(error));
      receiving_ = false;
      return false;
    }
    receiving_ = take(*datagram);
    if (run != run_) return false;
  }
  return receiving_;
}

std::int64_t Sender::PauseNanoseconds() const {
  if (packets_sent_ == 0) return 0;
  const std::int64_t interval = config_.interval * kNanosecondsPerMillisecond;
  return std::clamp<std::int64_t>(interval - (SteadyNanoseconds() - last_send_steady_), 0,
                                  interval);
}

bool Sender::Pace(RunNumber run, std::int64_t pause_nanoseconds) const {
  const std::int64_t deadline = SteadyNanoseconds() + pause_nanoseconds;
  for (std::int64_t now = SteadyNanoseconds(); now < deadline && run == run_;
       now = SteadyNanoseconds()) {
    SleepUntil(std::min(deadline, now + kMaxSleepNanoseconds));
  }
  return run == run_;
}

}  // namespace ipsla
