// One measurement session: who may send probes, until when, and what has come and gone.

#ifndef IPSLA_TOOLS_RESPONDER_SESSION_H_
#define IPSLA_TOOLS_RESPONDER_SESSION_H_

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <tuple>

#include "config/task_config.h"
#include "responder/sequence_window.h"
#include "udp/control_phase_message.h"

namespace ipsla::responder {

/// An IPv4 address and a port, both in host order.
struct Endpoint {
  std::uint32_t address = 0;
  std::uint16_t port = 0;

  bool operator==(const Endpoint&) const = default;
  /// For maps.
  bool operator<(const Endpoint& other) const {
    return std::tie(address, port) < std::tie(other.address, other.port);
  }
};

/// Between network order and ours.
[[nodiscard]] Endpoint FromSockaddr(const sockaddr_in& address);
[[nodiscard]] sockaddr_in ToSockaddr(const Endpoint& endpoint);
/// "192.0.2.1:50000"
[[nodiscard]] std::string ToString(const Endpoint& endpoint);

/// Sessions share measurement ports; the source of a probe tells them apart.
struct SessionKey {
  Endpoint local;  ///< where probes arrive
  Endpoint peer;   ///< where they come from

  bool operator==(const SessionKey&) const = default;
  /// For maps.
  bool operator<(const SessionKey& other) const {
    return std::tie(local, peer) < std::tie(other.local, other.peer);
  }
};

/// Counts of one run, or of several.
struct SessionStatistics {
  std::uint64_t received = 0;  ///< valid probes, duplicates included
  std::uint64_t distinct = 0;  ///< different sequence numbers among them
  std::uint64_t duplicates = 0;
  std::uint64_t out_of_order = 0;  ///< distinct ones that came after a higher number
  std::uint64_t replies = 0;       ///< sent
  std::uint64_t malformed = 0;     ///< datagrams of the wrong type or length
  std::uint64_t unanswered = 0;    ///< duplicates beyond the bound
  std::uint64_t unsent = 0;        ///< replies that the system did not take

  /// What is not as it should be; and the sum of two runs.
  [[nodiscard]] std::uint64_t Errors() const { return malformed + unanswered + unsent; }
  SessionStatistics& operator+=(const SessionStatistics& more);
};

/// What has come of one run of a test.
struct Run {
  SequenceWindow window;
  SessionStatistics statistics;
};

/// A run that may have begun in a session that is in use: see Session::restart.
struct Restart {
  Run run;
  SessionStatistics before;  ///< of the session's run when this one became possible
};

struct Session {
  std::uint32_t id = 0;
  SlaTestType type = SlaTestType::kNone;
  SessionKey key;
  std::uint32_t source = 0;       ///< the address that asked for it, host order
  std::int64_t end = 0;           ///< on the steady clock, nanoseconds
  std::int64_t last_heard = 0;    ///< its opening or its latest probe, on the same clock
  ControlMessageBytes request{};  ///< what it was opened with
  Run run;

  std::unique_ptr<Restart> restart;  ///< see ExpectRestart
  /// The counts of a run that another took the place of within the session, until they are fetched.
  std::optional<SessionStatistics> previous_run;
};

/// Duplicates answered in one session beyond as many as it has distinct probes. Some are normal,
/// the network makes them. The bound ends a loop in which two responders, each told that the other
/// is the sender, answer each other's replies: all of these carry numbers that were seen before.
/// A number that is new is always answered.
inline constexpr std::uint64_t kFreeDuplicates = 64;

/// So many numbers in a row that were seen before, none beyond the highest among them, make a
/// possible new run (Session::restart) a certain one.
inline constexpr std::uint32_t kRestartProof = 8;

/// A request without authentication came once more, byte for byte: a copy that the network made, or
/// the sender's next run from the same ports. Once there were probes, only further ones tell which:
/// see AnswerProbe. Throws std::bad_alloc.
void ExpectRestart(Session* session);

/// The same, and something else than its probes tells that it is the next run: the run that may
/// have begun has begun.
void BelieveRestart(Session* session);

/// Counts a datagram from the session's peer and, when it is a probe of the session's type, turns
/// it into its reply in place. False: not to be answered (counted as malformed or unanswered).
/// `arrival` is the real-time clock at arrival.
///
/// The reply's counter is the number of distinct probes so far, this one included: the sender takes
/// probes sent less the highest counter as lost on the way out, so a probe that was duplicated on
/// the way must not make up for a lost one.
///
/// While a new run is possible, numbers up to the highest one so far are answered with the new
/// run's counter: in a new run it is right, and for a copy of an old probe it does no harm, because
/// the sender looks at the highest. A number beyond it tells that the old run goes on, unless the
/// new one has as many, so that the counters agree.
[[nodiscard]] bool AnswerProbe(Session* session, const timespec& arrival,
                               std::span<std::uint8_t> datagram);

/// Counts what became of a reply that AnswerProbe made.
void CountReply(Session* session, bool sent);

/// One line about a run of a session, without a line break.
[[nodiscard]] std::string StatisticsLine(const Session& session,
                                         const SessionStatistics& statistics,
                                         const std::string& reason);

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_SESSION_H_
