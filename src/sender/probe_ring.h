// The records of a run's probes.

#ifndef IPSLA_SENDER_PROBE_RING_H_
#define IPSLA_SENDER_PROBE_RING_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <vector>

#include "sender/task_metrics.h"

namespace ipsla {

/// One record for each probe of a run, in a ring: the probe with sequence number n (from 1) has
/// slot n modulo the number of slots, so the last one of a run has slot 0. Plain values; threads:
/// one at a time.
class ProbeRing {
 public:
  /// At least one slot.
  explicit ProbeRing(std::int32_t slots);

  /// As before the first probe of a run.
  void Clear();

  /// Begins the record of the next probe, which is about to be sent at `now`.
  SlaPacketRecord& OpenNext(const timespec& now);

  /// Takes the record begun last back: its probe did not leave and will be tried again.
  void TakeBackLast();

  /// The probe `sequence` of this run left at `departure`, which is nearer to the truth than the
  /// clock read before the call; no effect when it is not (a clock that was set in between), or
  /// when the slot belongs to another probe. `stamp` is true for types that keep the time in
  /// units of 10 ns as well.
  void SetDeparture(std::uint32_t sequence, const timespec& departure, bool stamp);

  /// The record of a reply with this sequence number, or null when its slot was not sent in this
  /// run.
  [[nodiscard]] SlaPacketRecord* FindSent(std::uint32_t sequence);

  /// Marks a record as answered and gives it its place in the order of arrival.
  void Accept(SlaPacketRecord* record);

  /// Probes opened so far, which is the last one's sequence number.
  [[nodiscard]] std::uint32_t Sent() const { return sent_; }
  /// Distinct probes answered.
  [[nodiscard]] std::uint32_t Received() const { return received_; }
  /// Number of slots.
  [[nodiscard]] std::size_t Slots() const { return records_.size(); }

  /// All records, for the calculations, which reorder them.
  [[nodiscard]] std::span<SlaPacketRecord> Records() { return records_; }

 private:
  // The record that a sequence number has.
  [[nodiscard]] std::size_t SlotOf(std::uint32_t sequence) const {
    return sequence % records_.size();
  }

  // One for each probe of a run.
  std::vector<SlaPacketRecord> records_;
  // Probes opened and replies accepted in this run.
  std::uint32_t sent_ = 0;
  std::uint32_t received_ = 0;
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_PROBE_RING_H_
