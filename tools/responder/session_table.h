// The sessions of a responder, found by the source of a probe and ended in the order of their ends.

#ifndef IPSLA_TOOLS_RESPONDER_SESSION_TABLE_H_
#define IPSLA_TOOLS_RESPONDER_SESSION_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "responder/session.h"

namespace ipsla::responder {

/// How long a session outlives its Duration, nanoseconds: the sender's own clock starts when our
/// answer reaches it.
inline constexpr std::int64_t kSessionGrace = 1'000'000'000;

/// Single-threaded. Times are the steady clock in nanoseconds.
class SessionTable {
 public:
  explicit SessionTable(std::size_t max_sessions) : max_sessions_(max_sessions) {}

  /// True when a session with this key could be opened now: there is room, or one to replace.
  [[nodiscard]] bool HasRoomFor(const SessionKey& key) const;

  /// Opens a session of `duration_ms` and gives its id, 1 or more. A session with the same key is
  /// replaced (its sender has begun a new run) and handed back in `replaced`. REQUIRES:
  /// HasRoomFor(key).
  std::uint32_t Open(const SessionKey& key, SlaTestType type, std::uint32_t duration_ms,
                     std::int64_t now, std::optional<Session>* replaced);

  /// The session with this key, or null. Valid until the table changes.
  [[nodiscard]] Session* Find(const SessionKey& key);

  /// Removes and returns the sessions whose end has come, the earliest first.
  [[nodiscard]] std::vector<Session> TakeEnded(std::int64_t now);

  /// Removes and returns all sessions, the earliest end first.
  [[nodiscard]] std::vector<Session> TakeAll();

  /// When the next session ends; nothing without sessions.
  [[nodiscard]] std::optional<std::int64_t> NextEnd() const;

  [[nodiscard]] std::size_t Size() const { return sessions_.size(); }

 private:
  Session Remove(std::map<SessionKey, Session>::iterator position);

  const std::size_t max_sessions_;
  std::uint32_t last_id_ = 0;
  std::map<SessionKey, Session> sessions_;
  std::set<std::pair<std::int64_t, SessionKey>> ends_;  // of every session
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_SESSION_TABLE_H_
