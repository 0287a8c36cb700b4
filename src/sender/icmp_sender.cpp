#include "sender/icmp_sender.h"

#include <linux/filter.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <span>

#include "env/namespace_scope.h"
#include "env/network_namespace.h"
#include "env/packet_stamps.h"
#include "env/socket_options.h"
#include "env/time_values.h"
#include "log/log.h"
#include "sender/icmp_message.h"
#include "sender/sender_metric_funcs.h"

namespace ipsla {
namespace {

using boost::asio::ip::icmp;

constexpr std::int64_t kMillisecond = 1'000'000;

// Every raw socket of a namespace is handed every ICMP packet that arrives there. Without a filter
// in the kernel the replies of a hundred other tests would fill this one's receive buffer while its
// thread is busy, and its own replies would be lost and counted as lost. The filter looks where
// DecodeIcmpReply looks. Best effort: TakeReply checks again.
void AttachReplyFilter(int fd, std::uint8_t type, std::uint16_t identifier) {
  constexpr std::uint32_t kAccept = 0xFFFF;
  std::array<sock_filter, 8> program{{
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kIpv4HeaderSize),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, type, 0, 5),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kIpv4HeaderSize + 1),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 3),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, kIpv4HeaderSize + 4),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, identifier, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, kAccept),
      BPF_STMT(BPF_RET | BPF_K, 0),
  }};
  const sock_fprog filter{program.size(), program.data()};
  static_cast<void>(setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter));
}

}  // namespace

const Sender::TimerHandler IcmpSender::kTestStop{
    "TestStop", [](Sender& test) { static_cast<IcmpSender&>(test).TestStop(); }};

IcmpSender::IcmpSender(boost::asio::io_context& worker, const SlaTaskConfig& task,
                       const SenderContext& context)
    : Sender(worker, task, context),
      jitter_(task.sla_type == SlaTestType::kIcmpJitter),
      sent_bytes_(task.packet_size > kIpv4HeaderSize ? task.packet_size - kIpv4HeaderSize : 0),
      socket_(worker) {
  EncodeIcmpHeader(jitter_ ? kIcmpTimestampRequest : kIcmpEchoRequest, identifier_.Value(), 0,
                   send_buffer_);
  const std::size_t header = jitter_ ? kIcmpTimestampHeaderSize : kIcmpHeaderSize;
  for (std::size_t i = header; i < sent_bytes_; ++i)
    send_buffer_[i] = static_cast<std::uint8_t>(std::rand());
}

void IcmpSender::StartTest() {
  BeginRun();
  try {
    OpenSocket();
    ArmReceive();
    ArmSend();
    StartFuncTimeout(kTestStop, static_cast<std::uint32_t>(PlainRunMs(config_)));
  } catch (const std::exception& error) {
    FailStart(error.what());
  }
}

void IcmpSender::OpenSocket() {
  const SlaEndpointConfig& measurement = config_.measurement;
  NetworkNamespaceScope vrf(measurement.vrf);
  socket_.open(icmp::v4());
  vrf.Leave();

  const int fd = socket_.native_handle();
  const int ttl = config_.ttl;
  const int tos = config_.dscp * 4;
  const int mtu_discovery = IP_PMTUDISC_DONT;
  SetSockOpt(fd, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl, "IP_TTL");
  SetSockOpt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos, "IP_TOS");
  SetSockOpt(fd, IPPROTO_IP, IP_MTU_DISCOVER, &mtu_discovery, sizeof mtu_discovery,
             "IP_MTU_DISCOVER");
  if (!measurement.if_name.empty() && !measurement.if_name.starts_with("lo")) {
    // Deliberate: the measurement phase's interface decides whether to bind, the control phase's is
    // bound to.
    const std::string& name = config_.control_phase.if_name;
    SetSockOpt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(),
               static_cast<socklen_t>(name.size() + 1), "SO_BINDTODEVICE");
  }
  AttachReplyFilter(fd, jitter_ ? kIcmpTimestampReply : kIcmpEchoReply, identifier_.Value());
  EnableReceiveStamps(fd);
  ReserveReceiveBuffer(fd, packets_.size(), config_.packet_size);
  socket_.bind(
      icmp::endpoint(boost::asio::ip::address_v4(ntohl(measurement.src.sin_addr.s_addr)), 0));
  socket_.connect(
      icmp::endpoint(boost::asio::ip::address_v4(ntohl(measurement.dst.sin_addr.s_addr)), 0));
}

void IcmpSender::CalcTestMetric() {
  if (jitter_) {
    CalcIcmpMetric(config_.sla_id, packets_, &metrics_);
  } else {
    CalcEchoMetric(config_.sla_id, packets_, &metrics_);
  }
}

SlaTaskMetrics IcmpSender::GetMetrics(const std::list<SlaTaskMetrics>& history) const {
  return !jitter_ || metrics_.status != RunResult::kSuccessful ? metrics_
                                                               : AggregateHistory(history);
}

void IcmpSender::CloseSockets() {
  if (socket_.is_open()) socket_.close();
}

void IcmpSender::ArmSend() {
  socket_.async_wait(icmp::socket::wait_write,
                     [self = SharedFrom(this), run = run_.load()](
                         const boost::system::error_code& error) { self->SendPacket(error, run); });
}

void IcmpSender::ArmReceive() {
  socket_.async_wait(icmp::socket::wait_read, [self = SharedFrom(this), run = run_.load()](
                                                  const boost::system::error_code& error) {
    self->ReceivePacket(error, run);
  });
}

void IcmpSender::SendPacket(const boost::system::error_code& error, RunNumber run) {
  PacedSend(error, run, kMillisecond, [this] {
    SendProbe();
    if (packets_sent_ != static_cast<std::uint32_t>(config_.num_packets)) ArmSend();
  });
}

void IcmpSender::SendProbe() {
  ++packets_sent_;
  EncodeIcmpHeader(jitter_ ? kIcmpTimestampRequest : kIcmpEchoRequest, identifier_.Value(),
                   static_cast<std::uint16_t>(packets_sent_), send_buffer_);
  std::uint32_t originate = 0;
  if (jitter_) {
    originate = WholeMillisecondsOfDay(RealTimeNow());
    EncodeOriginateTimestamp(originate, send_buffer_);
  }
  // Over the stored packet size although fewer bytes are sent: those behind are always zero.
  SealIcmpMessage(std::min<std::size_t>(config_.packet_size, send_buffer_.size()), send_buffer_);
  SlaPacketRecord& record = OpenRecord(packets_sent_, RealTimeNow());
  if (jitter_) record.send_stamp = originate;
  // A probe that could not be sent deliberately stays in state "sent": it counts as one that was
  // lost.
  ++metrics_.sd_pkt_count;
  if (send(socket_.native_handle(), send_buffer_.data(), sent_bytes_, MSG_NOSIGNAL) < 0) {
    LOG_DEBUG(config_.sla_id, "sendto() failed: %s", std::strerror(errno));
  }
}

void IcmpSender::ReceivePacket(const boost::system::error_code& error, RunNumber run) {
  const std::lock_guard lock(mutex_);
  if (run != run_ || error == boost::asio::error::operation_aborted) return;
  if (error) {
    LOG_DEBUG(config_.sla_id, "ReceivePacket failed on test %d: %s", config_.sla_id,
              error.message().c_str());
    return;
  }
  if (TakeReplies()) ArmReceive();
}

bool IcmpSender::TakeReplies(std::size_t most) {
  const auto take = [this](const StampedDatagram& datagram) {
    TakeReply(datagram);
    return true;
  };
  return DrainReplies(socket_.native_handle(), config_.packet_size, take, most);
}

void IcmpSender::TakeReply(const StampedDatagram& datagram) {
  const IcmpReply reply = DecodeIcmpReply(std::span(receive_buffer_).first(datagram.bytes));
  const std::uint8_t expected = jitter_ ? kIcmpTimestampReply : kIcmpEchoReply;
  if (reply.identifier != identifier_.Value() || reply.code != 0 || reply.type != expected) return;
  SlaPacketRecord* record = FindSent(reply.sequence);
  if (record == nullptr) return;
  if (record->state == SlaPacketState::kReceived) {
    if (jitter_) ++metrics_.duplicate;  // echo tests deliberately do not count duplicates
    return;
  }
  record->receive_ms = MillisecondsOfDay(datagram.arrival);
  if (jitter_) {
    record->receive_stamp = WholeMillisecondsOfDay(datagram.arrival);
    record->remote_receive_stamp = reply.receive_timestamp;
    record->remote_transmit_stamp = reply.transmit_timestamp;
  }
  AcceptReply(record);
  if (packets_received_ == static_cast<std::uint32_t>(config_.num_packets)) CalcMetric();
}

void IcmpSender::TestStop() {
  // A reply that has arrived in time counts even if no thread was free to take it.
  const RunNumber run = run_;
  static_cast<void>(TakeReplies(AllReplies()));
  if (run == run_) EndByTimeout();
}

}  // namespace ipsla
