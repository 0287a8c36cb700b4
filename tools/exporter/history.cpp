#include "exporter/history.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <utility>

namespace ipsla::exporter {
namespace {

using client::TaskStatistics;

/// A quiet NaN, whose low bits say nothing to arithmetic. 0 there: no value; else the number of a
/// failure's reason, plus one.
constexpr std::uint32_t kNoValue = 0x7fc00000;
constexpr std::uint32_t kReasonMask = 0x0001ffff;

/// What a task costs without any point: its node in the map, texts, the deque's own memory.
constexpr std::size_t kSeriesBytes = 1024;

/// Distinct reasons that are kept apart; the daemon has about thirty.
constexpr std::size_t kMaxReasons = 256;
constexpr std::size_t kMaxReasonLength = 256;

Value Times(const Value& value, double factor) {
  return value ? Value(*value * factor) : std::nullopt;
}

}  // namespace

HistoryPoint::HistoryPoint() {
  bits_.fill(kNoValue);
}

void HistoryPoint::Set(Column column, const Value& value) {
  bits_.at(static_cast<std::size_t>(column)) =
      value && std::isfinite(*value) ? std::bit_cast<std::uint32_t>(static_cast<float>(*value))
                                     : kNoValue;
}

Value HistoryPoint::Get(Column column) const {
  const auto value = std::bit_cast<float>(bits_.at(static_cast<std::size_t>(column)));
  return std::isfinite(value) ? Value(value) : std::nullopt;
}

void HistoryPoint::Fail(std::uint16_t reason) {
  bits_.fill(kNoValue);
  bits_.front() = kNoValue | (reason + 1U);
}

std::optional<std::uint16_t> HistoryPoint::Failure() const {
  const std::uint32_t bits = bits_.front();
  if ((bits & ~kReasonMask) != kNoValue || bits == kNoValue) {
    return std::nullopt;
  }
  return static_cast<std::uint16_t>((bits & kReasonMask) - 1);
}

History::History(std::size_t max_bytes, std::int64_t keep_seconds)
    : max_bytes_(max_bytes), keep_seconds_(keep_seconds) {}

std::size_t History::Bytes() const {
  return blocks_ * sizeof(Block) + tasks_.size() * kSeriesBytes;
}

double History::ShortestPeriod() const {
  double shortest = 0;
  for (const auto& [id, series] : tasks_) {
    if (series.period > 0 && (shortest == 0 || series.period < shortest)) {
      shortest = series.period;
    }
  }
  return shortest;
}

std::uint16_t History::ReasonNumber(const std::string& reason) {
  const std::string text = reason.substr(0, kMaxReasonLength);
  const auto known = std::find(reasons_.begin(), reasons_.end(), text);
  if (known != reasons_.end()) {
    return static_cast<std::uint16_t>(known - reasons_.begin());
  }
  if (reasons_.size() < kMaxReasons) {
    reasons_.push_back(reasons_.size() + 1 < kMaxReasons ? text : "another reason");
  }
  return static_cast<std::uint16_t>(reasons_.size() - 1);
}

HistoryPoint History::PointOf(const TaskStatistics& task) {
  HistoryPoint point;
  point.time = static_cast<std::uint32_t>(
      std::clamp<std::int64_t>(task.finish_time, 0, std::numeric_limits<std::uint32_t>::max()));
  if (task.Failed()) {
    point.Fail(ReasonNumber(task.error.empty() ? task.status : task.error));
    return point;
  }
  const TaskMeasures measures = MeasuresOf(task);
  point.Set(Column::kRttMin, Times(measures.rtt.min, kMillisecondsPerSecond));
  point.Set(Column::kRttMean, Times(measures.rtt.mean, kMillisecondsPerSecond));
  point.Set(Column::kRttMax, Times(measures.rtt.max, kMillisecondsPerSecond));
  point.Set(Column::kDelaySd, Times(measures.delay_sd.mean, kMillisecondsPerSecond));
  point.Set(Column::kDelayDs, Times(measures.delay_ds.mean, kMillisecondsPerSecond));
  point.Set(Column::kJitterSd, Times(measures.jitter_sd, kMillisecondsPerSecond));
  point.Set(Column::kJitterDs, Times(measures.jitter_ds, kMillisecondsPerSecond));
  const bool by_direction = task.type == SlaTestType::kUdpJitter;
  point.Set(Column::kLossSd, Times(by_direction ? measures.loss_sd : measures.loss, kPercent));
  point.Set(Column::kLossDs, Times(measures.loss_ds, kPercent));
  return point;
}

void History::DropFront(Series* series) {
  points_ -= series->blocks.front()->used;
  --blocks_;
  series->blocks.pop_front();
}

// The clock was set back: what ended "later" than the newest run has a time that is worth nothing,
// and would stay until the clock is there again.
void History::DropLater(Series* series, std::uint32_t time) {
  while (!series->blocks.empty()) {
    Block& block = *series->blocks.back();
    while (block.used > 0 && block.points.at(block.used - 1).time > time) {
      --block.used;
      --points_;
    }
    if (block.used > 0) {
      return;
    }
    series->blocks.pop_back();
    --blocks_;
  }
}

void History::Append(Series* series, const HistoryPoint& point) {
  DropLater(series, point.time);
  if (series->blocks.empty() || series->blocks.back()->used == kBlockPoints) {
    series->blocks.push_back(std::make_unique<Block>());
    ++blocks_;
  }
  Block& block = *series->blocks.back();
  block.points.at(block.used++) = point;
  ++points_;
}

void History::RecordTask(Series* series, const TaskStatistics& task) {
  if (series->type != task.type || series->destination != task.dst_address ||
      series->vrf != task.vrf) {
    // Another test under the same id: the old one's results do not belong beside its own.
    while (!series->blocks.empty()) {
      DropFront(series);
    }
    *series = {.type = task.type, .destination = task.dst_address, .vrf = task.vrf};
  }
  const std::int64_t runs = task.successful_count + task.failed_count;
  if (runs == series->runs && task.finish_time == series->finish_time) {
    return;
  }
  // Fewer runs than before: the task or the daemon was started anew.
  if (runs > series->runs && series->runs > 0) {
    const std::int64_t finished = runs - series->runs;
    missed_ += static_cast<std::uint64_t>(finished - 1);
    series->period =
        static_cast<double>(task.finish_time - series->finish_time) / static_cast<double>(finished);
  }
  series->runs = runs;
  series->finish_time = task.finish_time;
  Append(series, PointOf(task));
}

void History::DropOld(std::int64_t now) {
  for (auto entry = tasks_.begin(); entry != tasks_.end();) {
    Series& series = entry->second;
    const auto is_old = [&](const Block& block) {
      return block.points.at(block.used - 1).time + keep_seconds_ < now;
    };
    while (!series.blocks.empty() && is_old(*series.blocks.front())) {
      DropFront(&series);
    }
    const bool gone = series.blocks.empty() && series.finish_time + keep_seconds_ < now;
    entry = gone ? tasks_.erase(entry) : std::next(entry);
  }
}

void History::MakeRoom() {
  if (Bytes() <= max_bytes_) {
    return;
  }
  // Some more than needed, so that this does not happen at every result.
  const std::size_t target = max_bytes_ - max_bytes_ / 64;
  using Oldest = std::pair<std::uint32_t, Series*>;
  std::vector<Oldest> heap;
  const auto end_of_front = [](const Series& series) {
    const Block& block = *series.blocks.front();
    return block.points.at(block.used - 1).time;
  };
  for (auto& [id, series] : tasks_) {
    if (!series.blocks.empty()) {
      heap.emplace_back(end_of_front(series), &series);
    }
  }
  std::make_heap(heap.begin(), heap.end(), std::greater<>());
  while (Bytes() > target && !heap.empty()) {
    std::pop_heap(heap.begin(), heap.end(), std::greater<>());
    Series* series = heap.back().second;
    heap.pop_back();
    DropFront(series);
    if (!series->blocks.empty()) {
      heap.emplace_back(end_of_front(*series), series);
      std::push_heap(heap.begin(), heap.end(), std::greater<>());
    }
  }
}

void History::Record(const client::StatisticsMap& tasks, std::int64_t now) {
  for (const auto& [id, task] : tasks) {
    RecordTask(&tasks_[id], task);
  }
  DropOld(now);
  MakeRoom();
}

TaskHistory History::Read(std::int32_t task, std::int64_t since, std::int64_t now) const {
  TaskHistory history;
  const auto entry = tasks_.find(task);
  if (entry == tasks_.end()) {
    return history;
  }
  history.loss_by_direction = entry->second.type == SlaTestType::kUdpJitter;
  const std::int64_t first = std::max(since, now - keep_seconds_);
  for (const BlockPtr& block : entry->second.blocks) {
    for (std::uint32_t index = 0; index < block->used; ++index) {
      if (block->points.at(index).time >= first) {
        history.points.push_back(block->points.at(index));
      }
    }
  }
  return history;
}

}  // namespace ipsla::exporter
