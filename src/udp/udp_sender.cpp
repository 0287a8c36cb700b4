#include "udp/udp_sender.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <span>
#include <stdexcept>

#include <boost/asio/buffer.hpp>

#include "env/namespace_scope.h"
#include "env/network_namespace.h"
#include "env/packet_stamps.h"
#include "env/socket_options.h"
#include "env/time_values.h"
#include "log/log.h"
#include "sender/sender_metric_funcs.h"
#include "udp/probe_message.h"

namespace ipsla {
namespace {

using boost::asio::ip::udp;

constexpr std::int64_t kMicrosecond = 1000;

static_assert(kReplyReadSize <= 64, "replies are read within the shortest buffer");

udp::endpoint ToEndpoint(const sockaddr_in& address) {
  return {boost::asio::ip::address_v4(ntohl(address.sin_addr.s_addr)), ntohs(address.sin_port)};
}

}  // namespace

const Sender::TimerHandler UdpSender::kTestStop{
    "TestStop", [](Sender& test) { static_cast<UdpSender&>(test).TestStop(); }};

UdpSender::UdpSender(boost::asio::io_context& worker, const SlaTaskConfig& task,
                     const SenderContext& context)
    : Sender(worker, task, context),
      control_destination_(ToEndpoint(task.control_phase.dst)),
      measurement_socket_(worker),
      control_socket_(worker),
      request_(BuildControlRequest(config_)) {
  const std::size_t header = ProbeHeaderSize(task.sla_type);
  if (header == 0) throw std::runtime_error("Unknown UDP sla sender type");
  // A test whose key is missing is not created. Every control phase then asks the store again.
  static_cast<void>(CurrentKey());
  for (std::size_t i = header; i < task.packet_size; ++i)
    send_buffer_[i] = static_cast<std::uint8_t>(std::rand());
}

void UdpSender::StartTest() {
  BeginRun();
  response_.fill(0);
  highest_counter_ = 0;
  request_.control_sender_address = config_.control_phase.src.sin_addr;
  request_.measurement_sender_address = config_.measurement.src.sin_addr;
  if (config_.measurement.src.sin_addr.s_addr == INADDR_ANY ||
      config_.control_phase.src.sin_addr.s_addr == INADDR_ANY) {
    FailRun("Start test failed");
    return;
  }
  try {
    OpenSockets();
    BindSockets();
  } catch (const std::exception& error) {
    FailStart(error.what());
    return;
  }
  ControlPhase();
}

void UdpSender::OpenSockets() {
  NetworkNamespaceScope vrf(config_.measurement.vrf);
  measurement_socket_.open(udp::v4());
  control_socket_.open(udp::v4());
  vrf.Leave();
}

void UdpSender::BindSockets() {
  const int measurement = measurement_socket_.native_handle();
  const int control = control_socket_.native_handle();
  const int ttl = config_.ttl;
  const int tos = config_.dscp * 4;
  const int mtu_discovery = IP_PMTUDISC_DONT;
  SetSockOpt(measurement, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl, "IP_TTL");
  SetSockOpt(measurement, IPPROTO_IP, IP_TOS, &tos, sizeof tos, "IP_TOS");
  SetSockOpt(measurement, IPPROTO_IP, IP_MTU_DISCOVER, &mtu_discovery, sizeof mtu_discovery,
             "IP_MTU_DISCOVER");
  const auto bind_to_device = [](int fd, const std::string& name) {
    if (name.empty()) return;
    SetSockOpt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(),
               static_cast<socklen_t>(name.size() + 1), "SO_BINDTODEVICE");
  };
  bind_to_device(control, config_.control_phase.if_name);
  bind_to_device(measurement, config_.measurement.if_name);
  // Only with queued errors does an unconnected socket learn that the responder's port is closed
  // (ip(7)).
  const int on = 1;
  SetSockOpt(control, IPPROTO_IP, IP_RECVERR, &on, sizeof on, "IP_RECVERR");
  EnableReceiveStamps(measurement);
  ReserveReceiveBuffer(measurement, packets_.size(), config_.packet_size);

  measurement_socket_.bind(ToEndpoint(config_.measurement.src));
  control_socket_.bind(ToEndpoint(config_.control_phase.src));
  request_.control_sender_port = control_socket_.local_endpoint().port();
  request_.measurement_sender_port = measurement_socket_.local_endpoint().port();
}

void UdpSender::CalcTestMetric() {
  if (config_.sla_type == SlaTestType::kUdpEcho) {
    CalcEchoMetric(config_.sla_id, packets_, &metrics_);
  } else {
    CalcJitterMetrics(config_.sla_id, packets_, &metrics_, highest_counter_,
                      SessionDuration(config_), config_.sla_type == SlaTestType::kUdpJitterNtp);
  }
}

SlaTaskMetrics UdpSender::GetMetrics(const std::list<SlaTaskMetrics>& history) const {
  const bool copy =
      config_.sla_type == SlaTestType::kUdpEcho || metrics_.status != RunResult::kSuccessful;
  return copy ? metrics_ : AggregateHistory(history);
}

void UdpSender::CloseSockets() {
  if (control_socket_.is_open()) control_socket_.close();
  if (measurement_socket_.is_open()) measurement_socket_.close();
}

void UdpSender::ArmSend() {
  measurement_socket_.async_wait(
      udp::socket::wait_write,
      [self = SharedFrom(this), run = run_.load()](const boost::system::error_code& error) {
        self->SendPacket(error, run);
      });
}

void UdpSender::ArmReceive() {
  measurement_socket_.async_wait(
      udp::socket::wait_read,
      [self = SharedFrom(this), run = run_.load()](const boost::system::error_code& error) {
        self->ReceivePacket(error, run);
      });
}

void UdpSender::SendPacket(const boost::system::error_code& error, RunNumber run) {
  PacedSend(error, run, kMicrosecond, [this] {
    if (SendProbe() && packets_sent_ != static_cast<std::uint32_t>(config_.num_packets)) ArmSend();
  });
}

bool UdpSender::SendProbe() {
  ++packets_sent_;
  EncodeProbe(config_.sla_type, packets_sent_, send_buffer_);
  const timespec now = RealTimeNow();
  OpenRecord(packets_sent_, now).send_stamp = TenNanosecondsOfDay(now);
  boost::system::error_code error;
  measurement_socket_.send_to(boost::asio::buffer(send_buffer_.data(), config_.packet_size),
                              measurement_destination_, 0, error);
  if (error) {
    if (IsErrorLogAllowed(config_.sla_id, ErrorKind::kSend)) {
      LOG_ERROR(config_.sla_id, "(test %d) %s", config_.sla_id, error.message().c_str());
    }
    return false;
  }
  ++metrics_.sd_pkt_count;
  return true;
}

void UdpSender::ReceivePacket(const boost::system::error_code& error, RunNumber run) {
  const std::lock_guard lock(mutex_);
  if (run != run_ || error == boost::asio::error::operation_aborted) return;
  if (error) {
    LOG_DEBUG(config_.sla_id, "ReceivePacket failed on test %d: %s", config_.sla_id,
              error.message().c_str());
    return;
  }
  if (TakeReplies()) ArmReceive();
}

bool UdpSender::TakeReplies(std::size_t most) {
  const auto take = [this](const StampedDatagram& datagram) {
    if (datagram.bytes == 0)
      return false;  // an empty datagram ends the receiving of this run, deliberately
    TakeReply(datagram);
    return true;
  };
  return DrainReplies(measurement_socket_.native_handle(), config_.packet_size, take, most);
}

void UdpSender::TakeReply(const StampedDatagram& datagram) {
  // The whole buffer, not only the bytes received: a field beyond them reads what the buffer holds,
  // deliberately.
  const ProbeReply reply = DecodeReply(receive_buffer_);
  if (reply.type != static_cast<std::uint16_t>(config_.sla_type)) return;
  SlaPacketRecord* record = FindSent(reply.sequence);
  if (record == nullptr) return;
  if (record->state == SlaPacketState::kReceived) {
    ++metrics_.duplicate;
    return;
  }
  highest_counter_ = std::max(highest_counter_, reply.counter);
  if (config_.sla_type == SlaTestType::kUdpJitter) {
    record->rs = reply.counter;
    record->receive_ms = MillisecondsOfDay(datagram.arrival);
    record->receive_stamp = TenNanosecondsOfDay(datagram.arrival);
    record->remote_receive_stamp = reply.stamp;
    record->remote_transmit_stamp = reply.stamp;
  } else if (config_.sla_type == SlaTestType::kUdpJitterNtp) {
    record->rs = static_cast<std::uint32_t>(reply.ntp_value) << 16U;
    record->ntp_t2 = reply.ntp_first;
    record->ntp_t3 = reply.ntp_second;
    record->ntp_t4 = NtpToWire(NtpFromTime(datagram.arrival));
  } else {
    record->receive_ms = MillisecondsOfDay(datagram.arrival);
  }
  AcceptReply(record);
  if (packets_received_ == static_cast<std::uint32_t>(config_.num_packets)) CalcMetric();
}

void UdpSender::TestStop() {
  // A reply that has arrived in time counts even if no thread was free to take it.
  const RunNumber run = run_;
  static_cast<void>(TakeReplies(AllReplies()));
  if (run == run_) EndByTimeout();
}

}  // namespace ipsla
