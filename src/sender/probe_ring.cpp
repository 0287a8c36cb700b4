#include "sender/probe_ring.h"

#include <algorithm>

#include "env/time_values.h"

namespace ipsla {

ProbeRing::ProbeRing(std::int32_t slots) : records_(static_cast<std::size_t>(std::max(slots, 1))) {}

void ProbeRing::Clear() {
  std::ranges::fill(records_, SlaPacketRecord{});
  sent_ = 0;
  received_ = 0;
}

SlaPacketRecord& ProbeRing::OpenNext(const timespec& now) {
  SlaPacketRecord& record = records_[SlotOf(++sent_)];
  record.ss = sent_;
  record.state = SlaPacketState::kSent;
  record.send_ms = MillisecondsOfDay(now);
  return record;
}

void ProbeRing::TakeBackLast() {
  records_[SlotOf(sent_)] = SlaPacketRecord{};
  --sent_;
}

void ProbeRing::SetDeparture(std::uint32_t sequence, const timespec& departure, bool stamp) {
  SlaPacketRecord& record = records_[SlotOf(sequence)];
  const double departure_ms = MillisecondsOfDay(departure);
  if (record.ss != sequence || departure_ms < record.send_ms) return;
  if (record.state == SlaPacketState::kReceived && record.receive_ms < departure_ms) return;
  record.send_ms = departure_ms;
  if (stamp) record.send_stamp = TenNanosecondsOfDay(departure);
}

SlaPacketRecord* ProbeRing::FindSent(std::uint32_t sequence) {
  SlaPacketRecord& record = records_[SlotOf(sequence)];
  return record.ss == 0 ? nullptr : &record;
}

void ProbeRing::Accept(SlaPacketRecord* record) {
  record->id = received_;
  ++received_;
  record->state = SlaPacketState::kReceived;
}

}  // namespace ipsla
