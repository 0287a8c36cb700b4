#include "responder/session.h"

#include <arpa/inet.h>

#include <utility>

#include <fmt/format.h>

#include "env/time_values.h"
#include "udp/probe_message.h"

namespace ipsla::responder {

namespace {

using Seen = SequenceWindow::Seen;

// The number a probe carries, counted on beyond 16 bits for udp-echo.
std::uint64_t SequenceIn(const Run& run, SlaTestType type, std::uint32_t carried) {
  if (type != SlaTestType::kUdpEcho) return carried;
  return ExtendSequence(static_cast<std::uint16_t>(carried), run.window.Highest());
}

Seen NoteProbe(std::uint64_t sequence, Run* run) {
  SessionStatistics& statistics = run->statistics;
  const Seen seen = run->window.Note(sequence);
  ++statistics.received;
  if (seen == Seen::kBefore) {
    ++statistics.duplicates;
    return seen;
  }
  ++statistics.distinct;
  if (seen == Seen::kFirstOutOfOrder) ++statistics.out_of_order;
  return seen;
}

// The possible new run is the session's run from now on.
void TakeRestart(Session* session) {
  session->previous_run = session->restart->before;
  session->run = session->restart->run;
  session->restart.reset();
}

// What the probes up to now say about a possible new run. `carried` is the number of the next one.
void JudgeRestart(Session* session, std::uint32_t carried) {
  if (!session->restart) return;
  const std::uint64_t count = session->restart->run.statistics.distinct;
  if (count >= kRestartProof) return TakeRestart(session);
  if (SequenceIn(session->run, session->type, carried) <= session->run.window.Highest()) return;
  if (count < session->run.statistics.distinct) {
    session->restart.reset();
  } else {
    TakeRestart(session);
  }
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

SessionStatistics& SessionStatistics::operator+=(const SessionStatistics& more) {
  received += more.received;
  distinct += more.distinct;
  duplicates += more.duplicates;
  out_of_order += more.out_of_order;
  replies += more.replies;
  malformed += more.malformed;
  unanswered += more.unanswered;
  unsent += more.unsent;
  return *this;
}

void ExpectRestart(Session* session) {
  if (session->run.statistics.received == 0) return;
  auto restart = std::make_unique<Restart>();
  // A short run that came and went without being told from the one before.
  if (session->restart &&
      session->restart->run.statistics.distinct >= session->run.statistics.distinct) {
    TakeRestart(session);
  }
  restart->before = session->run.statistics;
  session->restart = std::move(restart);
}

void BelieveRestart(Session* session) {
  if (session->restart) TakeRestart(session);
}

bool AnswerProbe(Session* session, const timespec& arrival, std::span<std::uint8_t> datagram) {
  const auto type = static_cast<std::uint16_t>(session->type);
  if (datagram.size() < ProbeHeaderSize(session->type) || DecodeReply(datagram).type != type) {
    ++session->run.statistics.malformed;
    return false;
  }
  const std::uint32_t carried = ProbeSequence(session->type, datagram);
  JudgeRestart(session, carried);
  Run* run = &session->run;
  std::uint64_t sequence = SequenceIn(*run, session->type, carried);
  Seen seen = NoteProbe(sequence, run);
  if (session->restart) {
    run = &session->restart->run;
    sequence = SequenceIn(*run, session->type, carried);
    seen = NoteProbe(sequence, run);
  }
  SessionStatistics& statistics = run->statistics;
  const std::uint64_t answered = statistics.duplicates - statistics.unanswered;
  if (seen == Seen::kBefore && answered > statistics.distinct + kFreeDuplicates) {
    ++statistics.unanswered;
    return false;
  }
  const ReplyFields fields = {.sequence = static_cast<std::uint32_t>(sequence),
                              .counter = static_cast<std::uint32_t>(statistics.distinct),
                              .receive_stamp = TenNanosecondsOfDay(arrival),
                              .ntp_receive = NtpFromTime(arrival)};
  EncodeReply(session->type, fields, datagram);
  return true;
}

void CountReply(Session* session, bool sent) {
  const auto count = [sent](SessionStatistics* statistics) {
    ++(sent ? statistics->replies : statistics->unsent);
  };
  count(&session->run.statistics);
  if (session->restart) count(&session->restart->run.statistics);
}

std::string StatisticsLine(const Session& session, const SessionStatistics& statistics,
                           const std::string& reason) {
  return fmt::format(
      "session {} {}: {} from {} to {}, received {}, distinct {}, duplicates {}, out of order {}, "
      "replies {}, errors {}",
      session.id, reason, TestTypeToString(session.type), ToString(session.key.peer),
      ToString(session.key.local), statistics.received, statistics.distinct, statistics.duplicates,
      statistics.out_of_order, statistics.replies, statistics.Errors());
}

}  // namespace ipsla::responder
