#include "responder/session.h"

#include <arpa/inet.h>

#include <fmt/format.h>

#include "env/time_values.h"
#include "udp/probe_message.h"

namespace ipsla::responder {

namespace {

// The number a probe carries, counted on beyond 16 bits for udp-echo.
std::uint64_t SequenceOf(const Session& session, std::span<const std::uint8_t> probe) {
  const std::uint32_t sequence = ProbeSequence(session.type, probe);
  if (session.type != SlaTestType::kUdpEcho) return sequence;
  return ExtendSequence(static_cast<std::uint16_t>(sequence), session.window.Highest());
}

void CountProbe(SequenceWindow::Seen seen, SessionStatistics* statistics) {
  ++statistics->received;
  if (seen == SequenceWindow::Seen::kBefore) {
    ++statistics->duplicates;
    return;
  }
  ++statistics->distinct;
  if (seen == SequenceWindow::Seen::kFirstOutOfOrder) ++statistics->out_of_order;
}

}  // namespace

Endpoint FromSockaddr(const sockaddr_in& address) {
  return {.address = ntohl(address.sin_addr.s_addr), .port = ntohs(address.sin_port)};
}

sockaddr_in ToSockaddr(const Endpoint& endpoint) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(endpoint.address);
  address.sin_port = htons(endpoint.port);
  return address;
}

std::string ToString(const Endpoint& endpoint) {
  return fmt::format("{}:{}", Ipv4ToString({htonl(endpoint.address)}), endpoint.port);
}

bool AnswerProbe(Session* session, const timespec& arrival, std::span<std::uint8_t> datagram) {
  SessionStatistics& statistics = session->statistics;
  const auto type = static_cast<std::uint16_t>(session->type);
  if (datagram.size() < ProbeHeaderSize(session->type) || DecodeReply(datagram).type != type) {
    ++statistics.errors;
    return false;
  }
  const std::uint64_t sequence = SequenceOf(*session, datagram);
  CountProbe(session->window.Note(sequence), &statistics);
  if (statistics.duplicates > statistics.distinct + kFreeDuplicates) {
    ++statistics.errors;
    return false;
  }
  const ReplyFields fields = {.sequence = static_cast<std::uint32_t>(sequence),
                              .counter = statistics.distinct,
                              .receive_stamp = TenNanosecondsOfDay(arrival),
                              .ntp_receive = NtpFromTime(arrival)};
  EncodeReply(session->type, fields, datagram);
  return true;
}

std::string StatisticsLine(const Session& session, const std::string& reason) {
  const SessionStatistics& statistics = session.statistics;
  return fmt::format(
      "session {} {}: {} from {} to {}, received {}, distinct {}, duplicates {}, out of order {}, "
      "replies {}, errors "
      "{}",
      session.id, reason, TestTypeToString(session.type), ToString(session.key.peer),
      ToString(session.key.local), statistics.received, statistics.distinct, statistics.duplicates,
      statistics.out_of_order, statistics.replies, statistics.errors);
}

}  // namespace ipsla::responder
