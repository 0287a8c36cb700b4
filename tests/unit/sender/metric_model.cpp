#include "sender/metric_model.h"

#include <endian.h>

#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <numeric>
#include <optional>

#include "sender/jitter_fixture.h"

namespace ipsla::test {

namespace {

using Ring = std::vector<SlaPacketRecord>;
using Key = std::function<std::uint64_t(const SlaPacketRecord&)>;
using State = SlaPacketState;

std::int32_t Low32(std::int64_t value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

// Slots in ascending order of the key; a multimap keeps equal keys in the order of insertion.
std::vector<std::size_t> Ordered(const std::vector<std::size_t>& slots, const Ring& ring,
                                 const Key& key) {
  std::multimap<std::uint64_t, std::size_t> sorted;
  for (const std::size_t slot : slots) sorted.emplace(key(ring[slot]), slot);
  std::vector<std::size_t> order;
  for (const auto& [value, slot] : sorted) order.push_back(slot);
  return order;
}

std::vector<std::size_t> AllSlots(const Ring& ring) {
  std::vector<std::size_t> slots(ring.size());
  std::iota(slots.begin(), slots.end(), std::size_t{0});
  return slots;
}

// The numbers left out below the maximum of a list of numbers from 1, seen by somebody who only
// looks at new maxima.
std::int64_t LeftOut(const std::vector<std::uint64_t>& numbers) {
  std::uint64_t maximum = 0;
  std::int64_t maxima = 0;
  for (const std::uint64_t number : numbers) {
    if (number <= maximum) continue;
    maximum = number;
    ++maxima;
  }
  return static_cast<std::int64_t>(maximum) - maxima;
}

struct OneWay {
  double rtt;
  double sd;
  double ds;
};

// Everything both calculations derive from the same facts.
struct Facts {
  std::vector<std::size_t> by_arrival;
  std::vector<std::optional<OneWay>> at;  // by position in by_arrival
  std::int64_t answered = 0;
  std::int64_t unanswered = 0;
  std::int64_t lost = 0;
  std::int64_t sd_left_out = 0;
  std::int64_t ds_left_out = 0;
};

double RootMeanSquare(const Facts& facts, std::int32_t count, double average,
                      double OneWay::*direction) {
  std::vector<double> squares;
  for (std::size_t k = 0; k < facts.at.size() && static_cast<std::int64_t>(k) < count; ++k) {
    const double value = facts.at[k] ? (*facts.at[k]).*direction : 0;
    if (value != 0) squares.push_back(std::pow(value - average, 2));
  }
  return std::sqrt(std::accumulate(squares.begin(), squares.end(), 0.0) / count);
}

void Conclude(const Facts& facts, SlaTaskMetrics* m) {
  const std::int32_t sd_late = Low32(Low32(facts.sd_left_out) - facts.lost);
  const std::int32_t ds_late = Low32(Low32(facts.ds_left_out) - facts.lost);
  m->sd_out_of_sequence = sd_late < 0 ? 0 : sd_late;
  m->ds_out_of_sequence = ds_late < 0 ? 0 : ds_late;
  m->late_arrival = Low32(std::int64_t{m->sd_out_of_sequence} + m->ds_out_of_sequence);
  m->sd_smp_count = Low32(facts.answered + facts.unanswered - m->sd_out_of_sequence);
  m->ds_smp_count = Low32(facts.answered - m->ds_out_of_sequence);
  m->rtt_smp_count = m->sd_smp_count < m->ds_smp_count ? m->sd_smp_count : m->ds_smp_count;

  m->rtt_min = m->latency_sd_min = m->latency_ds_min = kMax;
  m->rtt_max = m->latency_sd_max = m->latency_ds_max = -kMax;
  OneWay sum{};
  for (const std::optional<OneWay>& sample : facts.at) {
    if (!sample) continue;
    sum = {sum.rtt + sample->rtt, sum.sd + sample->sd, sum.ds + sample->ds};
    m->rtt_min = std::fmin(m->rtt_min, sample->rtt);
    m->rtt_max = std::fmax(m->rtt_max, sample->rtt);
    m->latency_sd_min = std::fmin(m->latency_sd_min, sample->sd);
    m->latency_sd_max = std::fmax(m->latency_sd_max, sample->sd);
    m->latency_ds_min = std::fmin(m->latency_ds_min, sample->ds);
    m->latency_ds_max = std::fmax(m->latency_ds_max, sample->ds);
  }
  m->rtt_avg = sum.rtt / m->rtt_smp_count;
  m->latency_sd_avg = sum.sd / m->rtt_smp_count;
  m->latency_ds_avg = sum.ds / m->rtt_smp_count;
  m->jitter_sd_sd = RootMeanSquare(facts, m->rtt_smp_count, m->latency_sd_avg, &OneWay::sd);
  m->jitter_ds_sd = RootMeanSquare(facts, m->rtt_smp_count, m->latency_ds_avg, &OneWay::ds);
}

double Percent(std::int32_t part, std::int32_t whole) {
  return whole <= 0 ? 0 : 100.0 * part / whole;
}

bool InTime(const SlaPacketRecord& r, std::uint32_t budget_ms) {
  return r.receive_stamp >= r.send_stamp &&
         r.receive_stamp - r.send_stamp <= std::uint64_t{budget_ms} * 100000;
}

std::int64_t NtpMilliseconds(std::uint64_t wire) {
  const std::uint64_t host = be64toh(wire);
  const std::int64_t seconds = static_cast<std::int64_t>(host >> 32U) - 2208988800;
  const std::uint64_t nanoseconds = ((host & 0xFFFFFFFFU) * 1000000000U) >> 32U;
  return seconds * 1000 + static_cast<std::int64_t>(nanoseconds / 1000000);
}

double Gap(std::int64_t a, std::int64_t b) {
  return static_cast<double>(std::abs(a - b));
}

OneWay NtpSample(const SlaPacketRecord& r) {
  const std::int64_t t1 = NtpMilliseconds(r.ntp_t1);
  const std::int64_t t4 = NtpMilliseconds(r.ntp_t4);
  return {static_cast<double>(t4 - t1), Gap(NtpMilliseconds(r.ntp_t2), t1),
          Gap(t4, NtpMilliseconds(r.ntp_t3))};
}

OneWay UdpSample(const SlaPacketRecord& r) {
  const auto ms = [](std::uint64_t stamp) { return static_cast<double>(stamp) / 100000.0; };
  const double rtt = ms(r.receive_stamp - r.send_stamp);
  const std::uint64_t whole = r.remote_transmit_stamp / 100000;
  if (whole < r.send_stamp / 100000 || whole > r.receive_stamp / 100000) {
    return {rtt, rtt / 2, rtt / 2};
  }
  return {rtt, std::fabs(ms(r.remote_transmit_stamp) - ms(r.send_stamp)),
          std::fabs(ms(r.receive_stamp) - ms(r.remote_transmit_stamp))};
}

OneWay IcmpSample(const SlaPacketRecord& r) {
  const auto gap = [](std::uint64_t a, std::uint64_t b) {
    return static_cast<double>(std::max(a, b) - std::min(a, b));
  };
  const double rtt = r.receive_ms - r.send_ms;
  const auto remote = static_cast<double>(r.remote_receive_stamp);
  if (remote < r.send_ms || remote > r.receive_ms) return {rtt, rtt / 2, rtt / 2};
  return {rtt, gap(r.remote_receive_stamp, r.send_stamp),
          gap(r.receive_stamp, r.remote_transmit_stamp)};
}

std::uint64_t ArrivalOf(const SlaPacketRecord& r) {
  return r.id;
}

// The sequence numbers of the replies that count, in the order of the key.
std::vector<std::uint64_t> Sequences(const Facts& facts, const Ring& ring,
                                     const std::vector<bool>& counts, const Key& key) {
  std::vector<std::uint64_t> numbers;
  for (const std::size_t slot : Ordered(facts.by_arrival, ring, key)) {
    if (counts[slot]) numbers.push_back(ring[slot].ss);
  }
  return numbers;
}

// A reply that counts gives a sample when no earlier one that counts has a higher key.
void TakeSamples(const Ring& ring, const std::vector<bool>& counts, const Key& key,
                 const std::function<OneWay(const SlaPacketRecord&)>& sample, Facts* facts) {
  std::uint64_t maximum = 0;
  facts->at.resize(ring.size());
  for (std::size_t position = 0; position < ring.size(); ++position) {
    const std::size_t slot = facts->by_arrival[position];
    if (!counts[slot] || key(ring[slot]) < maximum) continue;
    maximum = key(ring[slot]);
    facts->at[position] = sample(ring[slot]);
  }
}

}  // namespace

SlaTaskMetrics ModelUdpJitter(const Ring& ring, std::uint32_t responder_count,
                              std::uint32_t budget_ms, bool ntp) {
  const Key counter = [](const SlaPacketRecord& r) { return r.rs; };
  Facts facts;
  SlaTaskMetrics m;
  facts.by_arrival = Ordered(AllSlots(ring), ring, ArrivalOf);
  std::vector<bool> counts;
  for (const SlaPacketRecord& r : ring) {
    const bool answered = r.state == State::kReceived;
    counts.push_back(answered && InTime(r, budget_ms));
    if (counts.back()) ++facts.answered;
    if (r.state == State::kSent) ++facts.unanswered;
    if (r.state == State::kSkipped || (answered && !InTime(r, budget_ms))) ++m.skipped;
  }
  std::vector<std::uint64_t> counters;
  for (const std::size_t slot : facts.by_arrival) {
    if (counts[slot]) counters.push_back(ring[slot].rs);
  }
  facts.ds_left_out = LeftOut(counters);
  facts.sd_left_out = LeftOut(Sequences(facts, ring, counts, counter));
  TakeSamples(ring, counts, counter, ntp ? NtpSample : UdpSample, &facts);

  const std::int64_t sent = facts.answered + facts.unanswered;
  m.sd_loss = Low32(sent - responder_count);
  m.ds_loss = Low32(facts.unanswered - m.sd_loss);
  m.sd_loss_pct = Percent(m.sd_loss, Low32(sent));
  m.ds_loss_pct = Percent(m.ds_loss, Low32(sent - m.sd_loss));
  facts.lost = facts.unanswered;
  Conclude(facts, &m);
  return m;
}

std::vector<SlaPacketState> ModelUdpStates(const Ring& ring, std::uint32_t budget_ms) {
  std::vector<State> states;
  for (const SlaPacketRecord& r : ring) {
    const bool unusable = r.state == State::kReceived && !InTime(r, budget_ms);
    const bool unanswered = r.state == State::kSent;
    states.push_back(unusable ? State::kSkipped : unanswered ? State::kLossDs : r.state);
  }
  return states;
}

SlaTaskMetrics ModelIcmpJitter(const Ring& ring) {
  const Key stamp = [](const SlaPacketRecord& r) { return r.remote_transmit_stamp; };
  Facts facts;
  SlaTaskMetrics m;
  facts.by_arrival = Ordered(AllSlots(ring), ring, ArrivalOf);
  std::vector<bool> counts;
  for (const SlaPacketRecord& r : ring) {
    counts.push_back(r.state == State::kReceived);
    if (counts.back()) ++facts.answered;
    if (r.state == State::kSent) ++facts.unanswered;
    if (r.state == State::kSkipped) ++m.skipped;
  }
  TakeSamples(ring, counts, stamp, IcmpSample, &facts);
  // Every reply without a sample was overtaken.
  std::int64_t samples = 0;
  for (const std::optional<OneWay>& sample : facts.at) samples += sample ? 1 : 0;
  facts.ds_left_out = facts.answered - samples;
  facts.sd_left_out = LeftOut(Sequences(facts, ring, counts, stamp));

  m.sd_loss = Low32(facts.unanswered);
  m.sd_loss_pct = Percent(m.sd_loss, Low32(facts.answered + facts.unanswered));
  facts.lost = facts.unanswered;
  Conclude(facts, &m);
  return m;
}

testing::AssertionResult SameMetrics(const SlaTaskMetrics& expected, const SlaTaskMetrics& actual) {
  using M = SlaTaskMetrics;
  static constexpr std::pair<const char*, std::int32_t M::*> kCounts[] = {
      {"sd_smp_count", &M::sd_smp_count},
      {"ds_smp_count", &M::ds_smp_count},
      {"rtt_smp_count", &M::rtt_smp_count},
      {"sd_pkt_count", &M::sd_pkt_count},
      {"ds_pkt_count", &M::ds_pkt_count},
      {"sd_loss", &M::sd_loss},
      {"ds_loss", &M::ds_loss},
      {"sd_out_of_sequence", &M::sd_out_of_sequence},
      {"ds_out_of_sequence", &M::ds_out_of_sequence},
      {"late_arrival", &M::late_arrival},
      {"skipped", &M::skipped},
      {"duplicate", &M::duplicate}};
  static constexpr std::pair<const char*, double M::*> kValues[] = {
      {"sd_loss_pct", &M::sd_loss_pct},
      {"ds_loss_pct", &M::ds_loss_pct},
      {"jitter_sd_min", &M::jitter_sd_min},
      {"jitter_sd_avg", &M::jitter_sd_avg},
      {"jitter_sd_sd", &M::jitter_sd_sd},
      {"jitter_sd_max", &M::jitter_sd_max},
      {"jitter_ds_min", &M::jitter_ds_min},
      {"jitter_ds_avg", &M::jitter_ds_avg},
      {"jitter_ds_sd", &M::jitter_ds_sd},
      {"jitter_ds_max", &M::jitter_ds_max},
      {"latency_sd_min", &M::latency_sd_min},
      {"latency_sd_avg", &M::latency_sd_avg},
      {"latency_sd_max", &M::latency_sd_max},
      {"latency_ds_min", &M::latency_ds_min},
      {"latency_ds_avg", &M::latency_ds_avg},
      {"latency_ds_max", &M::latency_ds_max},
      {"rtt_min", &M::rtt_min},
      {"rtt_avg", &M::rtt_avg},
      {"rtt_max", &M::rtt_max}};
  for (const auto& [name, field] : kCounts) {
    if (expected.*field == actual.*field) continue;
    return testing::AssertionFailure()
           << name << ": expected " << expected.*field << ", got " << actual.*field;
  }
  for (const auto& [name, field] : kValues) {
    const double a = expected.*field;
    const double b = actual.*field;
    if (a == b || (std::isnan(a) && std::isnan(b)) || std::fabs(a - b) <= 1e-12 * std::fabs(a)) {
      continue;
    }
    return testing::AssertionFailure() << name << ": expected " << a << ", got " << b;
  }
  if (expected.status != actual.status || expected.error_description != actual.error_description ||
      expected.start_time != actual.start_time || expected.finish_time != actual.finish_time) {
    return testing::AssertionFailure() << "status, text or times differ";
  }
  return testing::AssertionSuccess();
}

}  // namespace ipsla::test
