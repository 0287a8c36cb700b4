// The calculation for "udp-jitter" and "udp-jitter-ntp".

#include <algorithm>
#include <cmath>

#include "env/time_values.h"
#include "log/log.h"
#include "sender/jitter_samples.h"
#include "sender/sender_metric_funcs.h"

namespace ipsla {

namespace {

constexpr std::uint64_t kStampsPerMillisecond = 100000;  // stamps count 10 ns

double StampToMilliseconds(std::uint64_t stamp) {
  return static_cast<double>(stamp) / kStampsPerMillisecond;
}

// One way is only as good as the agreement of two clocks: a responder's stamp outside the time the
// probe was on its way shows that they disagree, and then the round trip is split evenly.
JitterSample SampleFromStamps(const SlaPacketRecord& record) {
  JitterSample sample;
  sample.rtt = StampToMilliseconds(record.receive_stamp - record.send_stamp);
  const std::uint64_t remote = record.remote_transmit_stamp / kStampsPerMillisecond;
  if (record.send_stamp / kStampsPerMillisecond <= remote &&
      remote <= record.receive_stamp / kStampsPerMillisecond) {
    const double at_responder = StampToMilliseconds(record.remote_transmit_stamp);
    sample.sd = std::fabs(at_responder - StampToMilliseconds(record.send_stamp));
    sample.ds = std::fabs(StampToMilliseconds(record.receive_stamp) - at_responder);
  } else {
    sample.sd = sample.ds = sample.rtt * 0.5;
  }
  return sample;
}

JitterSample SampleFromNtp(const SlaPacketRecord& record) {
  const auto milliseconds = [](std::uint64_t wire) {
    return static_cast<double>(NtpToMilliseconds(NtpFromWire(wire)));
  };
  const double t1 = milliseconds(record.ntp_t1);
  const double t2 = milliseconds(record.ntp_t2);
  const double t3 = milliseconds(record.ntp_t3);
  const double t4 = milliseconds(record.ntp_t4);
  return {.rtt = t4 - t1, .sd = std::fabs(t2 - t1), .ds = std::fabs(t4 - t3)};
}

// Tells whether the accepted reply counts. One that does not is turned to "skipped".
bool CheckReply(std::uint16_t id, SlaPacketRecord* record, std::uint32_t budget_ms) {
  if (record->receive_stamp < record->send_stamp) {
    LOG_DEBUG(id,
              "Received the package before sending it ... Change state %s -> SLA_PACKET_SKIP_STATE",
              PacketStateToString(record->state).c_str());
  } else if (record->receive_stamp - record->send_stamp > budget_ms * kStampsPerMillisecond) {
    LOG_DEBUG(id, "Received the package after timeout ... Change state %s -> SLA_PACKET_SKIP_STATE",
              PacketStateToString(record->state).c_str());
  } else {
    return true;
  }
  record->state = SlaPacketState::kSkipped;
  return false;
}

// Counts one record by the state it came in. `last` is the highest responder counter so far.
void CountRecord(std::uint16_t id, std::uint32_t budget_ms, SlaPacketRecord* record,
                 std::uint32_t* last, SlaTaskMetrics* metrics) {
  switch (record->state) {
    case SlaPacketState::kReceived: {
      if (!CheckReply(id, record, budget_ms)) {
        ++metrics->skipped;
        break;
      }
      ++metrics->sd_smp_count;
      ++metrics->ds_smp_count;
      const std::uint32_t expected = *last + 1;  // wraps to 0 behind the largest counter
      if (record->rs >= expected) {
        metrics->ds_out_of_sequence =
            WrappingAdd(metrics->ds_out_of_sequence, record->rs - expected);
        *last = record->rs;
      }
      break;
    }
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
void WalkByArrival(std::uint16_t id, std::span<SlaPacketRecord> records, std::uint32_t budget_ms,
                   bool ntp, JitterSamples* samples, SlaTaskMetrics* metrics) {
  LOG_DEBUG(id, "  ID  |  SS  |  RS  |  STATE  ");
  std::ranges::stable_sort(records, {}, &SlaPacketRecord::id);
  std::uint32_t last = 0;
  for (std::size_t i = 0; i < records.size(); ++i) {
    SlaPacketRecord& record = records[i];
    CountRecord(id, budget_ms, &record, &last, metrics);
    // A reply overtaken on its way back is counted but gives no sample.
    if (record.state != SlaPacketState::kReceived || record.rs != last) continue;
    const JitterSample sample = ntp ? SampleFromNtp(record) : SampleFromStamps(record);
    AddSample(sample, i, samples, metrics);
    LogSample(id, record.rs, record, sample);
  }
}

// The probes in the order the responder saw them.
void WalkByResponder(std::uint16_t id, std::span<SlaPacketRecord> records,
                     SlaTaskMetrics* metrics) {
  LOG_DEBUG(id, "\n  ID  |  SS  |  RS  |  STATE  ");
  std::ranges::stable_sort(records, {}, &SlaPacketRecord::rs);
  std::uint32_t last = 0;
  for (const SlaPacketRecord& record : records) {
    LOG_DEBUG(id, " %-4d | %-4d | %-4d | %s", static_cast<std::int32_t>(record.id),
              static_cast<std::int32_t>(record.ss), static_cast<std::int32_t>(record.rs),
              PacketStateToString(record.state).c_str());
    if (record.state == SlaPacketState::kReceived) FollowSequence(record.ss, &last, metrics);
  }
}

}  // namespace

void CalcJitterMetrics(std::uint16_t id, std::span<SlaPacketRecord> records,
                       SlaTaskMetrics* metrics, std::uint32_t responder_count,
                       std::uint32_t budget_ms, bool ntp) {
  JitterSamples samples(records.size());
  WalkByArrival(id, records, budget_ms, ntp, &samples, metrics);
  WalkByResponder(id, records, metrics);

  // What the responder did not count was lost on the way out, the rest of what is missing on the
  // way back.
  const std::int32_t unanswered = metrics->sd_smp_count - metrics->ds_smp_count;
  metrics->sd_loss = WrappingSubtract(metrics->sd_smp_count, responder_count);
  metrics->ds_loss = WrappingSubtract(unanswered, static_cast<std::uint32_t>(metrics->sd_loss));
  metrics->sd_loss_pct = Percentage(metrics->sd_loss, metrics->sd_smp_count);
  metrics->ds_loss_pct = Percentage(
      metrics->ds_loss,
      WrappingSubtract(metrics->sd_smp_count, static_cast<std::uint32_t>(metrics->sd_loss)));

  CorrectForLateArrivals(unanswered, metrics);
  FinishSamples(samples, metrics);
}

}  // namespace ipsla
