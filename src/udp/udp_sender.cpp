#include "udp/udp_sender.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <span>
#include <stdexcept>

#include <boost/asio/buffer.hpp>

#include "env/namespace_scope.h"
#include "env/socket_options.h"
#include "env/time_values.h"
#include "log/log.h"
#include "sender/sender_metric_funcs.h"
#include "udp/probe_message.h"
#include "udp/wiped.h"

namespace ipsla {
namespace {

using boost::asio::ip::udp;

static_assert(kReplyReadSize <= 64, "replies are read within the shortest buffer");

udp::endpoint ToEndpoint(const sockaddr_in& address) {
  return {boost::asio::ip::address_v4(ntohl(address.sin_addr.s_addr)), ntohs(address.sin_port)};
}

}  // namespace

const Sender::ProbeCalls UdpSender::kCalls{.send =
                                               [](Sender& test) {
                                                 auto& self = static_cast<UdpSender&>(test);
                                                 self.mutex_.AssertHeld();
                                                 return self.SendNextProbe();
                                               },
                                           .take =
                                               [](Sender& test, const StampedDatagram& datagram) {
                                                 auto& self = static_cast<UdpSender&>(test);
                                                 self.mutex_.AssertHeld();
                                                 return self.TakeReply(datagram);
                                               }};

UdpSender::UdpSender(boost::asio::io_context& worker, const SlaTaskConfig& task,
                     const SenderContext& context)
    : Sender(worker, task, context, kCalls),
      control_destination_(ToEndpoint(task.control_phase.dst)),
      duration_ms_(SessionDuration(task)),
      control_socket_(worker),
      request_(BuildControlRequest(config_)) {
  const std::size_t header = ProbeHeaderSize(task.sla_type);
  if (header == 0) throw std::runtime_error("Unknown UDP sla sender type");
  // A test whose key is missing is not created. Every control phase then asks the store again.
  std::string key = CurrentKey();
  const WipedAtEnd wiped(key);
  FillPadding(header, task.packet_size);
}

void UdpSender::StartTest() {
  BeginRun();
  response_.fill(0);
  highest_counter_ = 0;
  const in_addr control_source = config_.control_phase.src.sin_addr;
  const in_addr measurement_source = config_.measurement.src.sin_addr;
  request_.control_sender_address = control_source;
  request_.measurement_sender_address = measurement_source;
  if (measurement_source.s_addr == INADDR_ANY || control_source.s_addr == INADDR_ANY) {
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
  socket_.Open(SOCK_DGRAM, IPPROTO_UDP);
  control_socket_.open(udp::v4());
  vrf.Leave();
}

void UdpSender::BindSockets() {
  const int control = control_socket_.native_handle();
  SetProbeOptions();
  const std::string& control_interface = config_.control_phase.if_name;
  if (!control_interface.empty()) {
    SetSockOpt(control, SOL_SOCKET, SO_BINDTODEVICE, control_interface.c_str(),
               static_cast<socklen_t>(control_interface.size() + 1), "SO_BINDTODEVICE");
  }
  socket_.BindToDevice(config_.measurement.if_name);
  // Only with queued errors does an unconnected socket learn that the responder's port is closed
  // (ip(7)).
  const int on = 1;
  SetSockOpt(control, IPPROTO_IP, IP_RECVERR, &on, sizeof on, "IP_RECVERR");
  socket_.PrepareForReplies(ring_.Slots(), packet_size_);

  socket_.Bind({.sin_family = AF_INET,
                .sin_port = config_.measurement.src.sin_port,
                .sin_addr = config_.measurement.src.sin_addr,
                .sin_zero = {}});
  control_socket_.bind(ToEndpoint(config_.control_phase.src));
  request_.control_sender_port = control_socket_.local_endpoint().port();
  request_.measurement_sender_port = socket_.LocalPort();
}

void UdpSender::CalcTestMetric() {
  if (type_ == SlaTestType::kUdpEcho) {
    CalcEchoMetric(id_, ring_.Records(), &metrics_);
  } else {
    CalcJitterMetrics(id_, ring_.Records(), &metrics_, highest_counter_, duration_ms_,
                      type_ == SlaTestType::kUdpJitterNtp);
  }
}

SlaTaskMetrics UdpSender::GetMetrics(const std::list<SlaTaskMetrics>& history) const {
  return LatestOf(history);
}

void UdpSender::CloseSockets() {
  if (control_socket_.is_open()) control_socket_.close();
  socket_.Close();
}

Sender::SendOutcome UdpSender::SendNextProbe() {
  EncodeProbe(type_, ring_.Sent() + 1, send_buffer_);
  const timespec now = RealTimeNow();
  OpenProbe(now).send_stamp = TenNanosecondsOfDay(now);
  const int error = SendProbe(packet_size_, &measurement_destination_);
  if (error == EAGAIN) return SendOutcome::kFull;
  if (error != 0) {
    if (IsErrorLogAllowed(id_, ErrorKind::kSend)) {
      LOG_ERROR(id_, "(test %d) %s", id_, std::strerror(error));
    }
    return SendOutcome::kFailed;
  }
  ++metrics_.sd_pkt_count;
  return SendOutcome::kSent;
}

bool UdpSender::TakeReply(const StampedDatagram& datagram) {
  // kept-behaviours.md#an-empty-datagram-ends-the-receiving
  if (datagram.bytes == 0) return false;
  // kept-behaviours.md#short-replies-are-completed-from-the-buffer
  const ProbeReply reply = DecodeReply(datagram.buffer);
  if (reply.type != static_cast<std::uint16_t>(type_)) return true;
  SlaPacketRecord* record = ring_.FindSent(reply.sequence);
  if (record == nullptr) return true;
  if (record->state == SlaPacketState::kReceived) {
    ++metrics_.duplicate;
    return true;
  }
  highest_counter_ = std::max(highest_counter_, reply.counter);
  if (type_ == SlaTestType::kUdpJitter) {
    record->rs = reply.counter;
    record->receive_ms = MillisecondsOfDay(datagram.arrival);
    record->receive_stamp = TenNanosecondsOfDay(datagram.arrival);
    record->remote_receive_stamp = reply.stamp;
    record->remote_transmit_stamp = reply.stamp;
  } else if (type_ == SlaTestType::kUdpJitterNtp) {
    record->rs = static_cast<std::uint32_t>(reply.ntp_value) << 16U;
    record->ntp_t2 = reply.ntp_first;
    record->ntp_t3 = reply.ntp_second;
    record->ntp_t4 = NtpToWire(NtpFromTime(datagram.arrival));
  } else {
    record->receive_ms = MillisecondsOfDay(datagram.arrival);
  }
  AcceptReply(record);
  return true;
}

}  // namespace ipsla
