#include "sender/icmp_sender.h"

#include <linux/filter.h>
#include <linux/icmp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <span>

#include "env/namespace_scope.h"
#include "env/time_values.h"
#include "log/log.h"
#include "sender/icmp_message.h"
#include "sender/sender_metric_funcs.h"

namespace ipsla {
namespace {

// Every raw socket of a namespace is handed every ICMP packet that arrives there. Without a filter
// in the kernel the replies of a hundred other tests would fill this one's receive buffer while its
// thread is busy, and its own replies would be lost and counted as lost. The program looks where
// DecodeIcmpReply looks; the filter by type stands before it because it spares the kernel a copy
// for each socket: the loopback would hand every request of every test to all of them as well.
// Best effort: TakeReply checks again.
void AttachReplyFilter(int fd, std::uint8_t type, std::uint16_t identifier) {
  const icmp_filter types{.data = ~(1U << type)};
  static_cast<void>(setsockopt(fd, SOL_RAW, ICMP_FILTER, &types, sizeof types));
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

const Sender::ProbeCalls IcmpSender::kCalls{.send =
                                                [](Sender& test) {
                                                  auto& self = static_cast<IcmpSender&>(test);
                                                  self.mutex_.AssertHeld();
                                                  return self.SendNextProbe();
                                                },
                                            .take =
                                                [](Sender& test, const StampedDatagram& datagram) {
                                                  auto& self = static_cast<IcmpSender&>(test);
                                                  self.mutex_.AssertHeld();
                                                  return self.TakeReply(datagram);
                                                }};

IcmpSender::IcmpSender(boost::asio::io_context& worker, const SlaTaskConfig& task,
                       const SenderContext& context)
    : Sender(worker, task, context, kCalls),
      jitter_(task.sla_type == SlaTestType::kIcmpJitter),
      sent_bytes_(task.packet_size > kIpv4HeaderSize ? task.packet_size - kIpv4HeaderSize : 0) {
  EncodeIcmpHeader(jitter_ ? kIcmpTimestampRequest : kIcmpEchoRequest, identifier_.Value(), 0,
                   send_buffer_);
  FillPadding(jitter_ ? kIcmpTimestampHeaderSize : kIcmpHeaderSize, sent_bytes_);
}

void IcmpSender::StartTest() {
  BeginRun();
  try {
    OpenSocket();
    StartProbing(static_cast<std::uint32_t>(PlainRunMs(config_)));
  } catch (const std::exception& error) {
    FailStart(error.what());
  }
}

void IcmpSender::OpenSocket() {
  const SlaEndpointConfig& measurement = config_.measurement;
  NetworkNamespaceScope vrf(measurement.vrf);
  socket_.Open(SOCK_RAW, IPPROTO_ICMP);
  vrf.Leave();

  SetProbeOptions();
  if (!measurement.if_name.empty() && !measurement.if_name.starts_with("lo")) {
    // kept-behaviours.md#icmp-binds-to-the-interface-of-the-control-phase
    socket_.BindToDevice(config_.control_phase.if_name);
  }
  AttachReplyFilter(socket_.Fd(), jitter_ ? kIcmpTimestampReply : kIcmpEchoReply,
                    identifier_.Value());
  socket_.PrepareForReplies(ring_.Slots(), packet_size_);
  sockaddr_in near{
      .sin_family = AF_INET, .sin_port = 0, .sin_addr = measurement.src.sin_addr, .sin_zero = {}};
  sockaddr_in far{
      .sin_family = AF_INET, .sin_port = 0, .sin_addr = measurement.dst.sin_addr, .sin_zero = {}};
  socket_.Bind(near);
  socket_.Connect(far);
}

void IcmpSender::CalcTestMetric() {
  if (jitter_) {
    CalcIcmpMetric(id_, ring_.Records(), &metrics_);
  } else {
    CalcEchoMetric(id_, ring_.Records(), &metrics_);
  }
}

SlaTaskMetrics IcmpSender::GetMetrics(const std::list<SlaTaskMetrics>& history) const {
  return LatestOf(history);
}

void IcmpSender::CloseSockets() {
  socket_.Close();
}

Sender::SendOutcome IcmpSender::SendNextProbe() {
  const std::uint32_t sequence = ring_.Sent() + 1;
  // The low 16 bits: kept-behaviours.md#numbers-of-16-bits-begin-anew
  EncodeIcmpHeader(jitter_ ? kIcmpTimestampRequest : kIcmpEchoRequest, identifier_.Value(),
                   static_cast<std::uint16_t>(sequence), send_buffer_);
  std::uint32_t originate = 0;
  if (jitter_) {
    originate = WholeMillisecondsOfDay(RealTimeNow());
    EncodeOriginateTimestamp(originate, send_buffer_);
  }
  // Over the stored packet size although fewer bytes are sent: those behind are always zero.
  SealIcmpMessage(std::min<std::size_t>(packet_size_, send_buffer_.size()), send_buffer_);
  SlaPacketRecord& record = OpenProbe(RealTimeNow());
  if (jitter_) record.send_stamp = originate;
  const int error = SendProbe(sent_bytes_, nullptr);
  if (error == EAGAIN) return SendOutcome::kFull;
  // kept-behaviours.md#a-probe-that-could-not-be-sent-counts-as-lost
  ++metrics_.sd_pkt_count;
  if (error != 0) LOG_DEBUG(id_, "sendto() failed: %s", std::strerror(error));
  return SendOutcome::kSent;
}

bool IcmpSender::TakeReply(const StampedDatagram& datagram) {
  const IcmpReply reply = DecodeIcmpReply(datagram.buffer.first(datagram.bytes));
  const std::uint8_t expected = jitter_ ? kIcmpTimestampReply : kIcmpEchoReply;
  if (reply.identifier != identifier_.Value() || reply.code != 0 || reply.type != expected) {
    return true;
  }
  SlaPacketRecord* record = ring_.FindSent(reply.sequence);
  if (record == nullptr) return true;
  // A late reply of an earlier run returns that run's time. One that returns 0 tells nothing.
  const bool foreign =
      reply.originate_timestamp != 0 && reply.originate_timestamp != record->send_stamp;
  if (jitter_ && foreign) return true;
  if (record->state == SlaPacketState::kReceived) {
    // kept-behaviours.md#echo-requests-have-no-duplicates
    if (jitter_) ++metrics_.duplicate;
    return true;
  }
  record->receive_ms = MillisecondsOfDay(datagram.arrival);
  if (jitter_) {
    record->receive_stamp = WholeMillisecondsOfDay(datagram.arrival);
    record->remote_receive_stamp = reply.receive_timestamp;
    record->remote_transmit_stamp = reply.transmit_timestamp;
  }
  AcceptReply(record);
  return true;
}

}  // namespace ipsla
