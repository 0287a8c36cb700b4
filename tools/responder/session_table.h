// The sessions of a responder, found by the source of a probe and ended in the order of their ends.

#ifndef IPSLA_TOOLS_RESPONDER_SESSION_TABLE_H_
#define IPSLA_TOOLS_RESPONDER_SESSION_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "responder/session.h"

namespace ipsla::responder {

/// How long a session outlives its Duration, nanoseconds: the sender's own clock starts when our
/// answer reaches it.
inline constexpr std::int64_t kSessionGrace = 1'000'000'000;

/// What the sessions may take.
struct SessionLimits {
  std::size_t sessions = 8192;             ///< at a time
  std::size_t sessions_per_source = 2048;  ///< of them, asked for from one address
  std::uint32_t duration_ms = 3'600'000;   ///< longest life, whatever the request says
  std::int64_t idle = 300'000'000'000;     ///< longest time without a probe, nanoseconds
};

/// Why a session could not be opened.
enum class Room : std::uint8_t { kFree, kFull, kFullForSource };

/// Single-threaded. Times are the steady clock in nanoseconds. Operations that need memory throw
/// std::bad_alloc and leave the table as it was.
class SessionTable {
 public:
  /// A session that is in no table.
  using Node = std::unique_ptr<Session>;

  explicit SessionTable(const SessionLimits& limits) : limits_(limits) {}

  /// Whether a session with this key could be opened now for this source (address, host order):
  /// there is room, or one to replace.
  [[nodiscard]] Room RoomFor(const SessionKey& key, std::uint32_t source) const;

  /// Opens a session of `duration_ms`, cut to the longest life. `wanted` has its key, type, source
  /// and request; the id, 1 or more, is given here. A session with the same key is replaced (its
  /// sender has begun a new run) and handed back in `replaced`. REQUIRES: RoomFor is kFree.
  const Session& Open(Session wanted, std::uint32_t duration_ms, std::int64_t now, Node* replaced);

  /// Lets a session last at least `duration_ms`, cut to the longest life, from now.
  void Prolong(Session* session, std::uint32_t duration_ms, std::int64_t now) const;

  /// The session with this key, or null. Valid until it is taken.
  [[nodiscard]] Session* Find(const SessionKey& key);

  /// A port of `address` (host order) that sessions use: the one on which `peer` has a session,
  /// else any; 0 when there is none.
  [[nodiscard]] std::uint16_t PortInUse(std::uint32_t address, const Endpoint& peer) const;

  /// Removes and returns one session whose end has come or that has been idle for too long (its end
  /// is then after `now`). Null when there is none.
  [[nodiscard]] Node TakeEnded(std::int64_t now);

  /// Removes and returns one session, whichever. Null when there is none.
  [[nodiscard]] Node TakeAny();

  /// When to call TakeEnded next; nothing without sessions.
  [[nodiscard]] std::optional<std::int64_t> NextCheck() const;

  /// Sessions that are open.
  [[nodiscard]] std::size_t Size() const { return sessions_.size(); }

  /// Calls `visit` with each session.
  template <class Visitor>
  void ForEach(Visitor visit) const {
    for (const auto& [key, entry] : sessions_) visit(*entry.session);
  }

 private:
  // A probe moves the time at which its session would be idle; the order is put right only when
  // that time comes.
  using Checks = std::set<std::pair<std::int64_t, SessionKey>>;
  struct Entry {
    Node session;
    std::int64_t check = 0;  // where it stands in `checks_`
  };
  using Sessions = std::map<SessionKey, Entry>;
  using Sources = std::map<std::uint32_t, std::size_t>;

  // When to look after a session, and how it leaves.
  [[nodiscard]] std::int64_t CheckOf(const Session& session) const;
  [[nodiscard]] std::int64_t EndAfter(std::uint32_t duration_ms, std::int64_t now) const;
  Node Remove(Sessions::iterator position);

  // Constant.
  const SessionLimits limits_;
  // The last id given. Ids count up and leave 0 out.
  std::uint32_t last_id_ = 0;
  Sessions sessions_;
  Checks checks_;      // of every session
  Sources by_source_;  // how many sessions, where there are any
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_SESSION_TABLE_H_
