// One measurement session: who may send probes, until when, and what has come and gone.

#ifndef IPSLA_TOOLS_RESPONDER_SESSION_H_
#define IPSLA_TOOLS_RESPONDER_SESSION_H_

#include <netinet/in.h>

#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <tuple>

#include "config/task_config.h"
#include "responder/sequence_window.h"

namespace ipsla::responder {

/// An IPv4 address and a port, both in host order.
struct Endpoint {
  std::uint32_t address = 0;
  std::uint16_t port = 0;

  bool operator==(const Endpoint&) const = default;
  bool operator<(const Endpoint& other) const {
    return std::tie(address, port) < std::tie(other.address, other.port);
  }
};

[[nodiscard]] Endpoint FromSockaddr(const sockaddr_in& address);
[[nodiscard]] sockaddr_in ToSockaddr(const Endpoint& endpoint);
/// "192.0.2.1:50000"
[[nodiscard]] std::string ToString(const Endpoint& endpoint);

/// Sessions share measurement ports; the source of a probe tells them apart.
struct SessionKey {
  Endpoint local;  ///< where probes arrive
  Endpoint peer;   ///< where they come from

  bool operator==(const SessionKey&) const = default;
  bool operator<(const SessionKey& other) const {
    return std::tie(local, peer) < std::tie(other.local, other.peer);
  }
};

struct SessionStatistics {
  std::uint64_t received = 0;  ///< valid probes, duplicates included
  std::uint32_t distinct = 0;  ///< different sequence numbers among them
  std::uint64_t duplicates = 0;
  std::uint64_t out_of_order = 0;  ///< distinct ones that came after a higher number
  std::uint64_t replies = 0;       ///< sent
  std::uint64_t errors =
      0;  ///< datagrams of the wrong type or length, unanswered duplicates, failed sends
};

struct Session {
  std::uint32_t id = 0;
  SlaTestType type = SlaTestType::kNone;
  SessionKey key;
  std::int64_t end = 0;  ///< on the steady clock, nanoseconds
  SequenceWindow window;
  SessionStatistics statistics;
};

/// Duplicates answered in one session beyond as many as it has distinct probes. Some are normal,
/// the network makes them. The bound ends a loop in which two responders, each told that the other
/// is the sender, answer each other's replies: all of these carry numbers that were seen before.
inline constexpr std::uint64_t kFreeDuplicates = 64;

/// Counts a datagram from the session's peer and, when it is a probe of the session's type, turns
/// it into its reply in place. False: not to be answered (counted as an error). `arrival` is the
/// real-time clock at arrival.
///
/// The reply's counter is the number of distinct probes so far, this one included: the sender takes
/// probes sent less the highest counter as lost on the way out, so a probe that was duplicated on
/// the way must not make up for a lost one.
[[nodiscard]] bool AnswerProbe(Session* session, const timespec& arrival,
                               std::span<std::uint8_t> datagram);

/// One line about a session that has ended, without a line break.
[[nodiscard]] std::string StatisticsLine(const Session& session, const std::string& reason);

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_SESSION_H_
