#include "responder/session_table.h"

#include <limits>

namespace ipsla::responder {

bool SessionTable::HasRoomFor(const SessionKey& key) const {
  return sessions_.size() < max_sessions_ || sessions_.contains(key);
}

std::uint32_t SessionTable::Open(const SessionKey& key, SlaTestType type, std::uint32_t duration_ms,
                                 std::int64_t now, std::optional<Session>* replaced) {
  if (const auto old = sessions_.find(key); old != sessions_.end()) *replaced = Remove(old);
  // 0 stands for "no session" in requests, so that ids go round without it.
  if (++last_id_ == 0) last_id_ = 1;
  Session& session = sessions_[key];
  session.id = last_id_;
  session.type = type;
  session.key = key;
  session.end = now + std::int64_t{duration_ms} * 1'000'000 + kSessionGrace;
  ends_.emplace(session.end, key);
  return session.id;
}

Session* SessionTable::Find(const SessionKey& key) {
  const auto found = sessions_.find(key);
  return found == sessions_.end() ? nullptr : &found->second;
}

std::vector<Session> SessionTable::TakeEnded(std::int64_t now) {
  std::vector<Session> ended;
  while (!ends_.empty() && ends_.begin()->first <= now)
    ended.push_back(Remove(sessions_.find(ends_.begin()->second)));
  return ended;
}

std::vector<Session> SessionTable::TakeAll() {
  return TakeEnded(std::numeric_limits<std::int64_t>::max());
}

std::optional<std::int64_t> SessionTable::NextEnd() const {
  if (ends_.empty()) return std::nullopt;
  return ends_.begin()->first;
}

Session SessionTable::Remove(std::map<SessionKey, Session>::iterator position) {
  ends_.erase({position->second.end, position->first});
  const Session session = position->second;
  sessions_.erase(position);
  return session;
}

}  // namespace ipsla::responder
