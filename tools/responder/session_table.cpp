#include "responder/session_table.h"

#include <algorithm>

namespace ipsla::responder {

Room SessionTable::RoomFor(const SessionKey& key, std::uint32_t source) const {
  const auto old = sessions_.find(key);
  if (old == sessions_.end() && sessions_.size() >= limits_.sessions) return Room::kFull;
  const auto held = by_source_.find(source);
  if (held == by_source_.end() || held->second < limits_.sessions_per_source) return Room::kFree;
  const bool replaces_own = old != sessions_.end() && old->second.session->source == source;
  return replaces_own ? Room::kFree : Room::kFullForSource;
}

const Session& SessionTable::Open(Session wanted, std::uint32_t duration_ms, std::int64_t now,
                                  Node* replaced) {
  const SessionKey key = wanted.key;
  wanted.end = EndAfter(duration_ms, now);
  wanted.last_heard = now;
  const std::int64_t check = CheckOf(wanted);
  // All the memory that is needed, before anything changes.
  Sources source;
  source.emplace(wanted.source, 0);
  Checks checks;
  checks.emplace(check, key);
  Sessions sessions;
  Session& session = *(sessions[key].session = std::make_unique<Session>(std::move(wanted)));
  sessions[key].check = check;

  if (const auto old = sessions_.find(key); old != sessions_.end()) *replaced = Remove(old);
  // 0 stands for "no session" in requests, so that ids go round without it.
  if (++last_id_ == 0) last_id_ = 1;
  session.id = last_id_;
  by_source_.merge(source);
  ++by_source_.find(session.source)->second;
  checks_.merge(checks);
  sessions_.merge(sessions);
  return session;
}

void SessionTable::Prolong(Session* session, std::uint32_t duration_ms, std::int64_t now) const {
  // The check that stands earlier finds the new end.
  session->end = std::max(session->end, EndAfter(duration_ms, now));
}

Session* SessionTable::Find(const SessionKey& key) {
  const auto found = sessions_.find(key);
  return found == sessions_.end() ? nullptr : found->second.session.get();
}

std::uint16_t SessionTable::PortInUse(std::uint32_t address, const Endpoint& peer) const {
  constexpr Endpoint kLastPeer = {.address = 0xffffffff, .port = 0xffff};
  std::uint16_t port = 0;
  auto next = sessions_.lower_bound({.local = {.address = address}, .peer = {}});
  while (next != sessions_.end() && next->first.local.address == address) {
    const Endpoint local = next->first.local;
    port = local.port;
    if (sessions_.contains({.local = local, .peer = peer})) return port;
    next = sessions_.upper_bound({.local = local, .peer = kLastPeer});
  }
  return port;
}

SessionTable::Node SessionTable::TakeEnded(std::int64_t now) {
  while (!checks_.empty() && checks_.begin()->first <= now) {
    const auto position = sessions_.find(checks_.begin()->second);
    const std::int64_t check = CheckOf(*position->second.session);
    if (check <= now) return Remove(position);
    auto node = checks_.extract(checks_.begin());
    node.value().first = position->second.check = check;
    checks_.insert(std::move(node));
  }
  return nullptr;
}

SessionTable::Node SessionTable::TakeAny() {
  return sessions_.empty() ? nullptr : Remove(sessions_.begin());
}

std::optional<std::int64_t> SessionTable::NextCheck() const {
  if (checks_.empty()) return std::nullopt;
  return checks_.begin()->first;
}

std::int64_t SessionTable::CheckOf(const Session& session) const {
  return std::min(session.end, session.last_heard + limits_.idle);
}

std::int64_t SessionTable::EndAfter(std::uint32_t duration_ms, std::int64_t now) const {
  return now + std::int64_t{std::min(duration_ms, limits_.duration_ms)} * 1'000'000 + kSessionGrace;
}

SessionTable::Node SessionTable::Remove(Sessions::iterator position) {
  checks_.erase({position->second.check, position->first});
  Node session = std::move(position->second.session);
  sessions_.erase(position);
  const auto held = by_source_.find(session->source);
  if (--held->second == 0) by_source_.erase(held);
  return session;
}

}  // namespace ipsla::responder
