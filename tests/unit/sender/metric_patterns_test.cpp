// Both jitter calculations against the naive model: every small pattern of loss, duplication,
// lateness and reordering, and random records as a hostile peer may leave them.

#include <algorithm>
#include <array>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "sender/jitter_fixture.h"
#include "sender/metric_model.h"
#include "sender/sender_metric_funcs.h"
#include "support/recording_syslog.h"

namespace ipsla::test {
namespace {

constexpr std::uint16_t kPatternsTask =
    4301;  // its log file stays closed: only the system-log copies are made
constexpr std::uint32_t kPatternsBudgetMs = 500;

enum class Fate { kLostOut, kLostBack, kAnswered, kDoubledOut, kLate };

using Ring = std::vector<SlaPacketRecord>;

// Calls `visit` with every permutation of the probes (numbers from 0) for which `take` holds.
template <typename Take, typename Visit>
void ForEachOrder(const std::vector<Fate>& fates, Take take, Visit visit) {
  std::vector<std::size_t> order;
  for (std::size_t probe = 0; probe < fates.size(); ++probe) {
    if (take(fates[probe])) order.push_back(probe);
  }
  do {
    visit(order);
  } while (std::next_permutation(order.begin(), order.end()));
}

// Calls `visit` with every assignment of one of the first `choices` fates to each of `count`
// probes.
template <typename Visit>
void ForEachFates(std::size_t count, std::size_t choices, Visit visit) {
  std::vector<Fate> fates(count);
  std::size_t total = 1;
  for (std::size_t i = 0; i < count; ++i) total *= choices;
  for (std::size_t number = 0; number < total; ++number) {
    std::size_t rest = number;
    for (Fate& fate : fates) {
      fate = static_cast<Fate>(rest % choices);
      rest /= choices;
    }
    visit(fates);
  }
}

bool ReachesResponder(Fate fate) {
  return fate != Fate::kLostOut;
}
bool ComesBack(Fate fate) {
  return fate != Fate::kLostOut && fate != Fate::kLostBack;
}

struct Run {
  Ring ring;
  std::uint32_t responder_count = 0;
};

// The records of a run in which the probes reach the responder in the order `out` and the replies
// return as `back`.
Run Simulate(const std::vector<Fate>& fates, const std::vector<std::size_t>& out,
             const std::vector<std::size_t>& back, std::uint64_t stamps_per_ms,
             std::uint64_t responder_step) {
  const std::size_t count = fates.size();
  std::vector<std::uint32_t> counters(count);
  std::vector<std::uint64_t> remote(count);
  std::uint32_t counter = 0;
  for (std::size_t rank = 0; rank < out.size(); ++rank) {
    counters[out[rank]] = ++counter;
    remote[out[rank]] = (1100 + rank * responder_step / 2) * stamps_per_ms;
    if (fates[out[rank]] == Fate::kDoubledOut) ++counter;
  }
  Run run;
  if (count == 0) return run;
  run.ring.resize(count);
  for (std::size_t probe = 0; probe < count; ++probe) {
    SlaPacketRecord& record = run.ring[(probe + 1) % count];
    record.ss = static_cast<std::uint32_t>(probe + 1);
    record.send_stamp = (1000 + probe * 20) * stamps_per_ms;
    record.send_ms = static_cast<double>(record.send_stamp) / static_cast<double>(stamps_per_ms);
  }
  for (std::size_t rank = 0; rank < back.size(); ++rank) {
    SlaPacketRecord& record = run.ring[(back[rank] + 1) % count];
    record.id = static_cast<std::uint32_t>(rank);
    record.state = SlaPacketState::kReceived;
    record.rs = counters[back[rank]];
    record.remote_receive_stamp = record.remote_transmit_stamp = remote[back[rank]];
    const std::uint64_t delay = fates[back[rank]] == Fate::kLate ? kPatternsBudgetMs : 0;
    record.receive_stamp = (1200 + rank * 3 + delay) * stamps_per_ms;
    record.receive_ms =
        static_cast<double>(record.receive_stamp) / static_cast<double>(stamps_per_ms);
    run.responder_count = std::max(run.responder_count, record.rs);
  }
  return run;
}

template <typename Visit>
void ForEachRun(std::size_t count, std::size_t choices, std::uint64_t stamps_per_ms,
                std::uint64_t step, Visit visit) {
  ForEachFates(count, choices, [&](const std::vector<Fate>& fates) {
    ForEachOrder(fates, ReachesResponder, [&](const std::vector<std::size_t>& out) {
      ForEachOrder(fates, ComesBack, [&](const std::vector<std::size_t>& back) {
        visit(fates, Simulate(fates, out, back, stamps_per_ms, step));
      });
    });
    TakeSyslog();
  });
}

std::vector<SlaPacketState> StatesBySlot(const Ring& sorted) {
  std::vector<SlaPacketState> states(sorted.size());
  for (const SlaPacketRecord& record : sorted) states[record.ss % sorted.size()] = record.state;
  return states;
}

int CheckUdpRuns(std::size_t count, std::size_t choices) {
  int runs = 0;
  ForEachRun(count, choices, kMs, 3, [&](const std::vector<Fate>& fates, const Run& run) {
    if (testing::Test::HasFailure()) return;
    Ring records = run.ring;
    SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
    CalcJitterMetrics(kPatternsTask, records, &metrics, run.responder_count, kPatternsBudgetMs,
                      false);
    EXPECT_TRUE(SameMetrics(ModelUdpJitter(run.ring, run.responder_count, kPatternsBudgetMs, false),
                            metrics));
    EXPECT_EQ(ModelUdpStates(run.ring, kPatternsBudgetMs), StatesBySlot(records));
    const auto lost = std::ranges::count_if(fates, [](Fate fate) { return !ComesBack(fate); });
    EXPECT_EQ(lost, metrics.sd_loss + metrics.ds_loss);
    EXPECT_EQ(std::ranges::count(fates, Fate::kLate), metrics.skipped);
    ++runs;
  });
  return runs;
}

TEST(UdpJitterPatterns, AgreeWithTheModelForUpToThreeProbesOfEveryFate) {
  // Sums over the fates of (number reaching the responder)! x (number coming back)!.
  EXPECT_EQ(5, CheckUdpRuns(1, 5));
  EXPECT_EQ(1 + 2 * 1 * 4 + 2 + 2 * 2 * 3 + 4 * 9, CheckUdpRuns(2, 5));
  EXPECT_GT(CheckUdpRuns(3, 5), 36 * 27);
}

TEST(UdpJitterPatterns, AgreeWithTheModelForFourProbesLostDoubledAndReordered) {
  EXPECT_GT(CheckUdpRuns(4, 4), 24 * 24 * 16);
}

int CheckIcmpRuns(std::size_t count, std::uint64_t responder_step) {
  int runs = 0;
  constexpr std::size_t kLostOrAnswered = 3;
  ForEachRun(
      count, kLostOrAnswered, 1, responder_step,
      [&](const std::vector<Fate>& fates, const Run& run) {
        if (testing::Test::HasFailure()) return;
        Ring records = run.ring;
        SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kIcmpJitter);
        CalcIcmpMetric(kPatternsTask, records, &metrics);
        EXPECT_TRUE(SameMetrics(ModelIcmpJitter(run.ring), metrics));
        const auto lost = std::ranges::count_if(fates, [](Fate fate) { return !ComesBack(fate); });
        EXPECT_EQ(lost, metrics.sd_loss);
        EXPECT_EQ(lost,
                  std::ranges::count(records, SlaPacketState::kLossDs, &SlaPacketRecord::state));
        ++runs;
      });
  return runs;
}

TEST(IcmpJitterPatterns, AgreeWithTheModelForUpToFourProbesLostAndReordered) {
  for (std::size_t count = 1; count <= 4; ++count) EXPECT_GT(CheckIcmpRuns(count, 2), 2);
}

TEST(IcmpJitterPatterns, AgreeWithTheModelWhenStampsOfTheSameMillisecondTie) {
  for (std::size_t count = 1; count <= 4; ++count) EXPECT_GT(CheckIcmpRuns(count, 1), 2);
}

// Values around the limits of their types, of each other, and anything in between.
class HostileValues {
 public:
  explicit HostileValues(std::uint64_t seed) : random_(seed) {}

  std::uint64_t Below(std::uint64_t limit) { return random_() % limit; }

  std::uint32_t U32() {
    switch (Below(4)) {
      case 0:
        return static_cast<std::uint32_t>(Below(6));
      case 1:
        return 0x7FFFFFFEU + static_cast<std::uint32_t>(Below(4));
      case 2:
        return 0xFFFFFFF8U +
               static_cast<std::uint32_t>(Below(7));  // the largest is outside the model's domain
      default:
        return static_cast<std::uint32_t>(Below(0xFFFFFFFFU));
    }
  }

  std::uint64_t U64() {
    switch (Below(4)) {
      case 0:
        return Below(4);
      case 1:
        return ~std::uint64_t{0} - Below(4);
      case 2:
        return 4000 * kMs + Below(700 * kMs);
      default:
        return random_();
    }
  }

  SlaPacketRecord Record() {
    SlaPacketRecord record;
    record.id = U32();
    record.state = static_cast<SlaPacketState>(Below(3) == 0 ? Below(256) : Below(2));
    record.ss = U32();
    record.rs = U32();
    record.send_stamp = U64();
    record.remote_receive_stamp = U64();
    record.remote_transmit_stamp = U64();
    record.receive_stamp = U64();
    record.send_ms = static_cast<double>(Below(86400000));
    record.receive_ms = static_cast<double>(Below(86400000)) + 0.5;
    record.ntp_t1 = U64();
    record.ntp_t2 = U64();
    record.ntp_t3 = U64();
    record.ntp_t4 = U64();
    return record;
  }

  Ring Records() {
    Ring ring(Below(12));
    for (SlaPacketRecord& record : ring) record = Record();
    return ring;
  }

 private:
  std::mt19937_64 random_;
};

TEST(JitterMetrics, AgreeWithTheModelForWhateverAHostilePeerLeavesInTheRecords) {
  HostileValues values(20240305);
  for (int round = 0; round < 4000 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    const Ring ring = values.Records();
    const std::uint32_t responder_count = values.U32();
    const std::uint32_t budget_ms = values.U32();
    for (const bool ntp : {false, true}) {
      Ring records = ring;
      SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kUdpJitter);
      CalcJitterMetrics(kPatternsTask, records, &metrics, responder_count, budget_ms, ntp);
      EXPECT_TRUE(SameMetrics(ModelUdpJitter(ring, responder_count, budget_ms, ntp), metrics))
          << "ntp " << ntp;
    }
    Ring records = ring;
    SlaTaskMetrics metrics = FreshMetrics(SlaTestType::kIcmpJitter);
    CalcIcmpMetric(kPatternsTask, records, &metrics);
    EXPECT_TRUE(SameMetrics(ModelIcmpJitter(ring), metrics)) << "icmp";
    TakeSyslog();
  }
}

}  // namespace
}  // namespace ipsla::test
