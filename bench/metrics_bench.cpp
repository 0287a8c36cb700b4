// Metrics of one run, by number of probes: how long the end of a run keeps a worker thread.
// Includes the debug lines of every probe, whose file copy goes nowhere (the test's file is not
// open).

#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "sender/sender_metric_funcs.h"

namespace {

using ipsla::SlaPacketRecord;
using ipsla::SlaPacketState;
using ipsla::SlaTaskMetrics;

constexpr std::uint16_t kId = 1;
constexpr std::uint64_t kStampsPerMs = 100000;
constexpr std::uint64_t kIntervalMs = 20;

// A run as a fair network leaves it: one probe in a hundred lost, one in fifty overtaken on its way
// back by its successor.
std::vector<SlaPacketRecord> FairRun(std::size_t count, std::uint64_t stamps_per_ms) {
  std::mt19937_64 random(count);
  const auto one_in = [&random](std::uint64_t n) { return random() % n == 0; };
  std::vector<SlaPacketRecord> records(count);
  std::uint32_t arrivals = 0;
  std::uint32_t counter = 0;
  for (std::size_t probe = 1; probe <= count; ++probe) {
    SlaPacketRecord& record = records[probe % count];
    record.ss = static_cast<std::uint32_t>(probe);
    record.send_stamp = probe * kIntervalMs * stamps_per_ms;
    record.send_ms = static_cast<double>(probe * kIntervalMs);
    if (one_in(100)) continue;
    record.state = SlaPacketState::kReceived;
    record.id = arrivals++;
    record.rs = ++counter;
    record.remote_receive_stamp = record.remote_transmit_stamp =
        record.send_stamp + 3 * stamps_per_ms;
    record.receive_stamp = record.remote_transmit_stamp + (2 + random() % 4) * stamps_per_ms;
    record.receive_ms =
        static_cast<double>(record.receive_stamp) / static_cast<double>(stamps_per_ms);
    SlaPacketRecord& before = records[probe - 1];
    if (one_in(50) && before.state == SlaPacketState::kReceived && probe > 1) {
      std::swap(record.id, before.id);
    }
  }
  return records;
}

template <typename Calculate>
void MeasureRun(benchmark::State& state, ipsla::SlaTestType type, std::uint64_t stamps_per_ms,
                Calculate calculate) {
  const std::vector<SlaPacketRecord> run =
      FairRun(static_cast<std::size_t>(state.range(0)), stamps_per_ms);
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<SlaPacketRecord> records = run;
    SlaTaskMetrics metrics;
    ipsla::ResetMetrics(type, &metrics);
    state.ResumeTiming();
    calculate(records, &metrics);
    benchmark::DoNotOptimize(metrics);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void EchoMetrics(benchmark::State& state) {
  MeasureRun(
      state, ipsla::SlaTestType::kUdpEcho, kStampsPerMs,
      [](auto& records, SlaTaskMetrics* metrics) { ipsla::CalcEchoMetric(kId, records, metrics); });
}

void UdpJitterMetrics(benchmark::State& state) {
  MeasureRun(state, ipsla::SlaTestType::kUdpJitter, kStampsPerMs,
             [](auto& records, SlaTaskMetrics* metrics) {
               const auto count = static_cast<std::uint32_t>(records.size());
               ipsla::CalcJitterMetrics(kId, records, metrics, count, 1000, false);
             });
}

void IcmpJitterMetrics(benchmark::State& state) {
  MeasureRun(state, ipsla::SlaTestType::kIcmpJitter, 1, [](auto& records, SlaTaskMetrics* metrics) {
    ipsla::CalcIcmpMetric(kId, records, metrics);
  });
}

BENCHMARK(EchoMetrics)->Arg(10)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(UdpJitterMetrics)->Arg(10)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(IcmpJitterMetrics)->Arg(10)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
