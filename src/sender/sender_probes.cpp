// The part of a test between its first probe and its last reply.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>

#include <boost/asio/error.hpp>
#include <boost/weak_ptr.hpp>

#include "log/log.h"
#include "sender/sender.h"

namespace ipsla {
namespace {

// As many datagrams are taken before others get their turn.
constexpr std::size_t kDatagramsPerTurn = 64;

// More small datagrams than a socket has room for by default. There must be an end: a stranger may
// send without one.
constexpr std::size_t kSmallDatagramsThatWait = 4096;

// Of a burst without pauses the sender itself takes the replies so often: no other thread may get
// to them before the socket's buffer is full.
constexpr std::uint32_t kProbesPerTurn = 32;

// Up to this interval the replies wait in the socket for the next probe. The time of their arrival
// is the kernel's stamp, so nothing depends on when they are taken, and a thread that woke up for
// each stamp of departure and each reply would cost more than the probe itself. With longer pauses
// the gain is small, and what strangers send to the port could fill the buffer.
constexpr std::chrono::milliseconds kMostRepliesWait{100};

}  // namespace

void Sender::SetProbeOptions() {
  socket_.SetSendOptions(config_.ttl, config_.dscp * 4);
}

bool Sender::TakesRepliesWhenItSends() const {
  return std::chrono::milliseconds(config_.interval) <= kMostRepliesWait;
}

std::size_t Sender::MostThatWait() const {
  return 2 * ring_.Slots() + kSmallDatagramsThatWait;
}

void Sender::StartProbing(std::uint32_t milliseconds) {
  if (!TakesRepliesWhenItSends()) WaitToReceive();
  StartFuncTimeout(kTestStop, milliseconds);
  deadline_ = SteadyNow() + std::chrono::milliseconds(milliseconds);
  PaceNow(run_);
}

// The pacer holds the test weakly: one that was removed need not wait for its next probe.
void Sender::PaceNow(RunNumber run) {
  context_.pacer->Add(
      SteadyNow(),
      [test = boost::weak_ptr<Sender>(shared_from_this()), run]() -> std::optional<SteadyTime> {
        const boost::shared_ptr<Sender> self = test.lock();
        return self ? self->SendDue(run) : std::nullopt;
      });
}

// The thread on duty has other tests' probes to send and does not wait for a handler of this one:
// the handler gives the probe back to the pacer when it is done. Nor does the thread come back and
// try again: the handler may be one that this very thread has interrupted, on the same CPU and with
// a lower priority, and would never end if several such probes kept the thread awake.
bool Sender::LockOrLeaveProbe(RunNumber run) {
  if (mutex_.try_lock()) return true;
  left_probe_ = run;
  // Between the two steps on either side, so that not both miss the other's (Dekker's pattern).
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (!mutex_.try_lock()) return false;
  if (left_probe_.exchange(kNoRun) == run) return true;
  mutex_.unlock();  // the holder was quicker
  return false;
}

void Sender::TakeUpLeftProbe() {
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (left_probe_ == kNoRun) return;
  const RunNumber run = left_probe_.exchange(kNoRun);
  if (run != kNoRun && run == run_) PaceNow(run);
}

std::optional<SteadyTime> Sender::SendDue(RunNumber run) {
  // Asked without the mutex first: while a run that has ended is dealt with, its probes are void.
  if (run != run_) return std::nullopt;
  if (!LockOrLeaveProbe(run)) return std::nullopt;
  const Lock lock(*this, std::adopt_lock);
  if (run != run_) return std::nullopt;
  try {
    return SendNext();
  } catch (const std::exception& error) {
    LOG_DEBUG(id_, "SendPacket failed on test %d: %s", id_, error.what());
    return std::nullopt;
  }
}

std::optional<SteadyTime> Sender::SendNext() {
  // Before the probe: what arrived earlier cannot be its reply.
  if (ring_.Sent() == 0) {
    // All that came during the control phase: late replies of the run before, for example.
    static_cast<void>(TakeReplies(MostThatWait()));
  } else if (TakesRepliesWhenItSends() &&
             (config_.interval != 0 || ring_.Sent() % kProbesPerTurn == 0)) {
    static_cast<void>(TakeReplies(kDatagramsPerTurn));
  }
  const SendOutcome outcome = calls_.send(*this);
  if (outcome == SendOutcome::kFull) {
    WaitToSend();
    return std::nullopt;
  }
  const bool is_last = ring_.Sent() == static_cast<std::uint32_t>(num_packets_);
  if (outcome == SendOutcome::kFailed || is_last) {
    if (TakesRepliesWhenItSends() && receiving_) WaitToReceive();
    return std::nullopt;
  }
  return last_send_ + std::chrono::milliseconds(config_.interval);
}

SlaPacketRecord& Sender::OpenProbe(const timespec& now) {
  last_send_ = SteadyNow();
  return ring_.OpenNext(now);
}

int Sender::SendProbe(std::size_t bytes, const sockaddr_in* to) {
  const int error = socket_.Send(std::span(send_buffer_).first(bytes), to);
  // The driver has stamped the probe before the call returned, unless it stands in a queue.
  TakeDepartures();
  if (error == 0) return 0;
  if (error == EAGAIN) ring_.TakeBackLast();
  // Whether the kernel has given a number to the probe that did not leave is not known.
  EnableProbeStamps(socket_.Fd());
  stamp_base_ = ring_.Sent() + 1;
  return error;
}

void Sender::TakeDepartures() {
  const int fd = socket_.Fd();
  if (fd < 0) return;
  while (const auto stamp = TakeTransmitStamp(fd)) {
    const std::uint32_t sequence = stamp_base_ + stamp->number;
    // The originate stamp of an icmp-jitter probe stands in its packet and stays as it is.
    ring_.SetDeparture(sequence, stamp->departure, type_ != SlaTestType::kIcmpJitter);
    if (sequence == ring_.Sent()) return;
  }
}

void Sender::WaitToSend() {
  socket_.WaitToSend([self = shared_from_this(), run = run_.load()](
                         const boost::system::error_code& error) { self->SendPacket(error, run); });
}

void Sender::SendPacket(const boost::system::error_code& error, RunNumber run) {
  const Lock lock(*this);
  if (run != run_ || error == boost::asio::error::operation_aborted) return;
  if (error) {
    LOG_DEBUG(id_, "SendPacket failed on test %d: %s", id_, error.message().c_str());
    return;
  }
  PaceNow(run);
}

void Sender::WaitToReceive() {
  socket_.WaitToReceive(
      [self = shared_from_this(), run = run_.load()](const boost::system::error_code& error) {
        self->ReceivePacket(error, run);
      });
}

void Sender::ReceivePacket(const boost::system::error_code& error, RunNumber run) {
  context_.pacer->LetDueProbesPass();
  if (run != run_) return;
  const Lock lock(*this);
  if (run != run_ || error == boost::asio::error::operation_aborted) return;
  if (error) {
    LOG_DEBUG(id_, "ReceivePacket failed on test %d: %s", id_, error.message().c_str());
    return;
  }
  // A stamp of departure that came late wakes this up as a reply does, and again at once if it is
  // left there.
  TakeDepartures();
  if (TakeReplies(kDatagramsPerTurn)) WaitToReceive();
}

// Takes what has arrived, so many datagrams at most. True when receiving goes on. Once it has ended
// it stays so for the rest of the run.
bool Sender::TakeReplies(std::size_t most) {
  const RunNumber run = run_;
  for (std::size_t taken = 0; receiving_ && taken < most; ++taken) {
    int error = 0;
    const std::size_t size = std::min<std::size_t>(packet_size_, receive_buffer_.size());
    auto datagram = ReceiveStamped(socket_.Fd(), receive_buffer_.data(), size, &error);
    if (!datagram) {
      if (error == EAGAIN || error == EWOULDBLOCK) return true;
      LOG_DEBUG(id_, "ReceivePacket failed on test %d: %s", id_, std::strerror(error));
      receiving_ = false;
      return false;
    }
    if (!IsInTime(datagram->arrival)) continue;
    datagram->buffer = receive_buffer_;
    receiving_ = calls_.take(*this, *datagram);
    if (run != run_) return false;
  }
  return receiving_;
}

// By the kernel's stamp, however late it is looked at.
bool Sender::IsInTime(const timespec& arrival) const {
  const SteadyTime now = SteadyNow();
  if (now <= deadline_) return true;
  const std::int64_t age = ToNanoseconds(RealTimeNow()) - ToNanoseconds(arrival);
  return now - std::chrono::nanoseconds(age) <= deadline_;
}

void Sender::AcceptReply(SlaPacketRecord* record) {
  ++metrics_.ds_pkt_count;
  ring_.Accept(record);
  if (ring_.Received() == static_cast<std::uint32_t>(num_packets_)) CalcMetric();
}

}  // namespace ipsla
