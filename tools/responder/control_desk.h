// Where requests are answered: from the bytes of a datagram to those of its answer, and everything
// that keeps a session from being opened twice, for too long or by one peer too often. No sockets,
// no clock.

#ifndef IPSLA_TOOLS_RESPONDER_CONTROL_DESK_H_
#define IPSLA_TOOLS_RESPONDER_CONTROL_DESK_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "responder/nonce_memory.h"
#include "responder/report.h"
#include "responder/request_check.h"
#include "responder/session_table.h"
#include "responder/token_bucket.h"
#include "responder/totals.h"

namespace ipsla::responder {

/// Refusals sent to one address: a peer that answers whatever it gets cannot keep us busy.
inline constexpr Rate kRefusals = {.burst = 200, .per_second = 50};

/// The measurement ports, as the desk needs them. A port is open as long as somebody holds it.
class Ports {
 public:
  virtual ~Ports() = default;

  /// Holds `local` for one more session and opens it if need be. kSuccessful, or the status to
  /// refuse with. Throws std::bad_alloc.
  [[nodiscard]] virtual SlaControlStatus Hold(const Endpoint& local) = 0;

  /// Holds a port of our choice: `local` gets it.
  [[nodiscard]] virtual SlaControlStatus HoldAny(Endpoint* local) = 0;

  /// Gives up one hold.
  virtual void Release(const Endpoint& local) = 0;
};

/// Single-threaded. Times are the steady clock in nanoseconds. The objects it is given outlive it.
class ControlDesk {
 public:
  /// No session is open yet.
  ControlDesk(AuthPolicy policy, IsOurAddress is_our_address, const SessionLimits& limits,
              Ports* ports, Report* report);

  /// Judges a datagram that came to the control port from `source`, opens the session it asks for
  /// and gives the answer, which is never longer than the datagram. Throws std::bad_alloc when not
  /// even a refusal can be made.
  EncodedAnswer Handle(std::span<const std::uint8_t> received, const Endpoint& source,
                       std::int64_t now);

  /// Ends and reports one session whose time has come. False when there is none.
  bool EndOne(std::int64_t now);

  /// Ends and reports all sessions: the responder stops.
  void EndAll(std::int64_t now);

  /// To be called after each probe of a session.
  void NoteProbe(Session* session, std::int64_t now);

  /// Requests are checked against these keys from now on.
  void SetPolicy(AuthPolicy policy) { policy_ = std::move(policy); }

  /// For whoever serves the probes: sessions by their key, and the counts of all.
  [[nodiscard]] SessionTable& Sessions() { return sessions_; }
  [[nodiscard]] Totals& Counts() { return totals_; }

 private:
  /// An accepted request on its way to a session.
  struct Application {
    std::span<const std::uint8_t> received;
    Endpoint source;
    std::int64_t now = 0;
  };

  // Steps of Handle, each towards an answer or a status to refuse with.
  void Admit(const Application& application, CheckedRequest* checked);
  void AnswerAgain(const Application& application, Session* session, CheckedRequest* checked);
  void OpenSession(const Application& application, SessionKey key, CheckedRequest* checked);
  void ReportPreviousRun(Session* session, std::int64_t now);
  [[nodiscard]] bool HasRoom(const SessionKey& key, const Endpoint& source);
  void Close(SessionTable::Node session, const char* reason, std::int64_t now);

  // What requests are judged by.
  AuthPolicy policy_;
  const IsOurAddress is_our_address_;
  const SessionLimits limits_;
  // The caller's.
  Ports* const ports_;
  Report* const report_;
  // What is remembered of requests so far.
  SessionTable sessions_;
  NonceMemory nonces_;
  SourceLimiter refusals_;
  Totals totals_;
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_CONTROL_DESK_H_
