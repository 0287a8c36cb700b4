#include "responder/control_desk.h"

#include <algorithm>
#include <memory>
#include <new>

#include <fmt/format.h>

namespace ipsla::responder {

namespace {

using Status = SlaControlStatus;
using Verdict = CheckedRequest::Verdict;

Endpoint HostOrder(in_addr address, std::uint16_t port) {
  return {.address = ntohl(address.s_addr), .port = port};
}

SessionKey KeyOf(const ControlPhaseMessage& request) {
  return {
      .local = HostOrder(request.measurement_responder_address, request.measurement_responder_port),
      .peer = HostOrder(request.measurement_sender_address, request.measurement_sender_port)};
}

}  // namespace

ControlDesk::ControlDesk(AuthPolicy policy, IsOurAddress is_our_address,
                         const SessionLimits& limits, Ports* ports, Report* report)
    : policy_(std::move(policy)),
      is_our_address_(std::move(is_our_address)),
      limits_(limits),
      ports_(ports),
      report_(report),
      sessions_(limits),
      refusals_(kRefusals) {}

EncodedAnswer ControlDesk::Handle(std::span<const std::uint8_t> received, const Endpoint& source,
                                  std::int64_t now) {
  ++totals_.requests;
  CheckedRequest checked = CheckRequest(received, policy_, is_our_address_);
  if (checked.verdict == Verdict::kIgnored) {
    ++totals_.ignored;
    return {};
  }
  if (checked.verdict == Verdict::kAccepted) {
    try {
      Admit({.received = received, .source = source, .now = now}, &checked);
    } catch (const std::bad_alloc&) {
      ++totals_.out_of_memory;
      RefuseMeasurement(Status::kUnknownInternalError, &checked);
    }
  }
  if (checked.verdict == Verdict::kRefused) {
    totals_.refusals.Note(checked.answer);
    if (!refusals_.Take(source.address, now)) {
      ++totals_.held_back;
      return {};
    }
    report_->Detail(now, [&] {
      return fmt::format("refused {}: {}", ToString(source), DescribeFault(checked.answer));
    });
  }
  return EncodeAnswer(checked, received.size());
}

// Opens what an accepted request asks for and completes its answer, or makes it a refused one.
void ControlDesk::Admit(const Application& application, CheckedRequest* checked) {
  SessionKey key = KeyOf(checked->answer);
  // Left to us: the port on which this peer has a session already, else one that is open.
  if (key.local.port == 0) key.local.port = sessions_.PortInUse(key.local.address, key.peer);
  Session* const running = sessions_.Find(key);
  if (running != nullptr && std::ranges::equal(running->request, application.received)) {
    return AnswerAgain(application, running, checked);
  }
  if (checked->key && !nonces_.Remember(checked->answer.nonce)) {
    ++totals_.repeated;
    return RefuseAuthentication(Status::kAuthenticationFail, checked);
  }
  if (!HasRoom(key, application.source)) {
    return RefuseMeasurement(Status::kRequestedPortIsBusy, checked);
  }
  const Status fault = key.local.port == 0 ? ports_->HoldAny(&key.local) : ports_->Hold(key.local);
  if (fault != Status::kSuccessful) return RefuseMeasurement(fault, checked);
  try {
    OpenSession(application, key, checked);
  } catch (const std::bad_alloc&) {
    ports_->Release(key.local);
    throw;
  }
}

// The request that opened a session has come once more. Signed, it is a copy, for every run has a
// nonce of its own; without authentication the sender's next run may look the same.
void ControlDesk::AnswerAgain(const Application& application, Session* session,
                              CheckedRequest* checked) {
  ++totals_.answered_again;
  checked->answer.session_id = session->id;
  checked->answer.measurement_responder_port = session->key.local.port;
  checked->answer.duration_ms = std::min(checked->answer.duration_ms, limits_.duration_ms);
  if (checked->key) return;
  ExpectRestart(session);
  ReportPreviousRun(session, application.now);
  // A sender's runs begin further apart than their Duration, so behind that the one before is over,
  // whatever numbers the next one loses.
  if (application.now >= session->end - kSessionGrace) {
    BelieveRestart(session);
    ReportPreviousRun(session, application.now);
  }
  sessions_.Prolong(session, checked->answer.duration_ms, application.now);
}

bool ControlDesk::HasRoom(const SessionKey& key, const Endpoint& source) {
  const Room room = sessions_.RoomFor(key, source.address);
  if (room == Room::kFull) ++totals_.full;
  if (room == Room::kFullForSource) ++totals_.full_for_source;
  return room == Room::kFree;
}

void ControlDesk::OpenSession(const Application& application, SessionKey key,
                              CheckedRequest* checked) {
  ControlPhaseMessage& answer = checked->answer;
  const std::uint32_t wanted_ms = answer.duration_ms;
  Session wanted;
  wanted.type = static_cast<SlaTestType>(answer.operation_type);
  wanted.key = key;
  wanted.source = application.source.address;
  std::ranges::copy(application.received, wanted.request.begin());
  SessionTable::Node replaced;
  const Session& session = sessions_.Open(std::move(wanted), wanted_ms, application.now, &replaced);
  ++totals_.opened;
  answer.session_id = session.id;
  answer.measurement_responder_port = key.local.port;
  answer.duration_ms = std::min(wanted_ms, limits_.duration_ms);
  report_->Detail(application.now, [&] {
    return fmt::format("session {} opened: {} from {} to {} for {} ms, asked for by {}", session.id,
                       TestTypeToString(session.type), ToString(key.peer), ToString(key.local),
                       answer.duration_ms, ToString(application.source));
  });
  if (wanted_ms > limits_.duration_ms) {
    ++totals_.shortened;
    report_->Session(application.now, [&] {
      return fmt::format("session {} shortened: {} ms asked for, {} ms given", session.id,
                         wanted_ms, limits_.duration_ms);
    });
  }
  if (replaced) {
    ++totals_.replaced;
    Close(std::move(replaced), "replaced", application.now);
  }
}

bool ControlDesk::EndOne(std::int64_t now) {
  SessionTable::Node session = sessions_.TakeEnded(now);
  if (!session) return false;
  const bool idle = session->end > now;
  ++(idle ? totals_.idle : totals_.ended);
  Close(std::move(session), idle ? "idle" : "ended", now);
  return true;
}

void ControlDesk::EndAll(std::int64_t now) {
  while (SessionTable::Node session = sessions_.TakeAny()) {
    Close(std::move(session), "stopped", now);
  }
}

void ControlDesk::NoteProbe(Session* session, std::int64_t now) {
  session->last_heard = now;
  ReportPreviousRun(session, now);
}

// Reports the run that another took the place of within its session, if there is one.
void ControlDesk::ReportPreviousRun(Session* session, std::int64_t now) {
  if (!session->previous_run) return;
  const SessionStatistics previous = *session->previous_run;
  session->previous_run.reset();
  ++totals_.replaced;
  totals_.probes += previous;
  report_->Session(now, [&] { return StatisticsLine(*session, previous, "restarted"); });
}

// Reports a session that left the table and gives up its share of the port.
void ControlDesk::Close(SessionTable::Node session, const char* reason, std::int64_t now) {
  totals_.probes += session->run.statistics;
  ports_->Release(session->key.local);
  report_->Session(now, [&] { return StatisticsLine(*session, session->run.statistics, reason); });
}

}  // namespace ipsla::responder
