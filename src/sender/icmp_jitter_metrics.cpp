// The calculation for "icmp-jitter".

#include <algorithm>

#include "log/log.h"
#include "sender/jitter_samples.h"
#include "sender/sender_metric_funcs.h"

namespace ipsla {

namespace {

double Distance(std::uint64_t a, std::uint64_t b) {
  return static_cast<double>(a > b ? a - b : b - a);
}

// A remote stamp outside the time the probe was on its way shows that the clocks disagree (or that
// the peer does not count milliseconds since midnight); then the round trip is split evenly.
JitterSample SampleFromMilliseconds(const SlaPacketRecord& record) {
  JitterSample sample;
  sample.rtt = record.receive_ms - record.send_ms;
  const auto remote = static_cast<double>(record.remote_receive_stamp);
  if (record.send_ms <= remote && remote <= record.receive_ms) {
    sample.sd = Distance(record.remote_receive_stamp, record.send_stamp);
    sample.ds = Distance(record.receive_stamp, record.remote_transmit_stamp);
  } else {
    sample.sd = sample.ds = sample.rtt * 0.5;
  }
  return sample;
}

// Counts one record by the state it came in. `last` is the latest remote transmit stamp so far.
void CountRecord(SlaPacketRecord* record, std::uint64_t* last, SlaTaskMetrics* metrics) {
  switch (record->state) {
    case SlaPacketState::kReceived:
      ++metrics->sd_smp_count;
      ++metrics->ds_smp_count;
      if (record->remote_transmit_stamp < *last) {
        ++metrics->ds_out_of_sequence;
      } else {
        *last = record->remote_transmit_stamp;
      }
      break;
    case SlaPacketState::kSent:
      ++metrics->sd_smp_count;
      record->state = SlaPacketState::kLossDs;
      break;
    case SlaPacketState::kSkipped:
      ++metrics->skipped;
      break;
    default:
      break;
  }
}

// The replies in the order they came back.
void WalkByArrival(std::uint16_t id, std::span<SlaPacketRecord> records, JitterSamples* samples,
                   SlaTaskMetrics* metrics) {
  std::ranges::stable_sort(records, {}, &SlaPacketRecord::id);
  LOG_DEBUG(id, "  ID  |  SS  |    RT    |  STATE  ");
  std::uint64_t last = 0;
  for (std::size_t i = 0; i < records.size(); ++i) {
    SlaPacketRecord& record = records[i];
    CountRecord(&record, &last, metrics);
    // A reply overtaken on its way back is counted but gives no sample.
    if (record.state != SlaPacketState::kReceived || record.remote_transmit_stamp != last) continue;
    const JitterSample sample = SampleFromMilliseconds(record);
    AddSample(sample, i, samples, metrics);
    LogSample(id, record.ss, record, sample);
  }
}

// The probes in the order the peer answered them.
void WalkByTransmitStamp(std::uint16_t id, std::span<SlaPacketRecord> records,
                         SlaTaskMetrics* metrics) {
  LOG_DEBUG(id, "  ID  |  SS  |    RT    |  STATE  ");
  std::ranges::stable_sort(records, {}, &SlaPacketRecord::remote_transmit_stamp);
  std::uint32_t last = 0;
  for (const SlaPacketRecord& record : records) {
    LOG_DEBUG(id, " %-4d | %-4d | %-8lu | %s", static_cast<std::int32_t>(record.id),
              static_cast<std::int32_t>(record.ss), record.remote_transmit_stamp,
              PacketStateToString(record.state).c_str());
    if (record.state == SlaPacketState::kReceived) FollowSequence(record.ss, &last, metrics);
  }
}

}  // namespace

void CalcIcmpMetric(std::uint16_t id, std::span<SlaPacketRecord> records, SlaTaskMetrics* metrics) {
  JitterSamples samples(records.size());
  WalkByArrival(id, records, &samples, metrics);
  WalkByTransmitStamp(id, records, metrics);

  // ICMP peers count nothing, so the direction of a loss is unknown: all of it is booked to the way
  // out.
  metrics->sd_loss = metrics->sd_smp_count - metrics->ds_smp_count;
  metrics->sd_loss_pct = Percentage(metrics->sd_loss, metrics->sd_smp_count);
  metrics->ds_loss_pct = Percentage(metrics->ds_loss, metrics->ds_smp_count);

  CorrectForLateArrivals(
      WrappingAdd(metrics->sd_loss, static_cast<std::uint32_t>(metrics->ds_loss)), metrics);
  FinishSamples(samples, metrics);
}

}  // namespace ipsla
