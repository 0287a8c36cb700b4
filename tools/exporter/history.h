// The results of the recent past, in bounded memory, for the page.
//
// A point is 40 bytes: the time and nine values as floats. A run that failed has none of them; its
// reason is a number into a list of texts, kept in the bits of a value that is no number. Points
// stand in blocks; when the memory is used up, the oldest blocks of all tasks go.

#ifndef IPSLA_TOOLS_EXPORTER_HISTORY_H_
#define IPSLA_TOOLS_EXPORTER_HISTORY_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/task_results.h"
#include "exporter/task_measures.h"

namespace ipsla::exporter {

/// Values of a point, in the order in which they are kept. Milliseconds; loss in percent.
enum class Column : std::uint8_t {
  kRttMin,
  kRttMean,
  kRttMax,
  kDelaySd,
  kDelayDs,
  kJitterSd,
  kJitterDs,
  kLossSd,  ///< of the round trip where the type does not tell directions
  kLossDs,
};
inline constexpr std::size_t kColumns = 9;

/// One run.
class HistoryPoint {
 public:
  /// Seconds since the epoch, up to the year 2106.
  std::uint32_t time = 0;

  /// A run without values.
  HistoryPoint();
  /// A value is kept as a float, one that is none as such.
  void Set(Column column, const Value& value);
  [[nodiscard]] Value Get(Column column) const;

  /// Makes it a failed run, without values. Reasons are counted from 0.
  void Fail(std::uint16_t reason);
  [[nodiscard]] std::optional<std::uint16_t> Failure() const;

 private:
  std::array<std::uint32_t, kColumns> bits_;
};
static_assert(sizeof(HistoryPoint) == 40);

/// Results of one task, oldest first.
struct TaskHistory {
  bool loss_by_direction = false;
  std::vector<HistoryPoint> points;
};

/// How much is kept.
struct HistoryState {
  std::size_t bytes = 0, points = 0;
  std::uint64_t missed_runs = 0;  ///< that ended between two questions and were never seen
};

/// Threads: one, or guarded by its owner.
class History {
 public:
  /// Keeps results for `keep_seconds`, in at most `max_bytes`.
  History(std::size_t max_bytes, std::int64_t keep_seconds);

  /// Adds every result that is another than the last one of its task. `now`: seconds since the
  /// epoch.
  void Record(const client::StatisticsMap& tasks, std::int64_t now);

  /// Results of one task that ended at `since` or later and are not too old.
  [[nodiscard]] TaskHistory Read(std::int32_t task, std::int64_t since, std::int64_t now) const;

  /// Why runs failed, by the numbers in the points.
  [[nodiscard]] const std::vector<std::string>& Reasons() const { return reasons_; }

  /// How much is kept now.
  [[nodiscard]] HistoryState State() const { return {Bytes(), points_, missed_}; }

  /// Shortest time between two runs of a task, seconds, as far as seen; 0 before that.
  [[nodiscard]] double ShortestPeriod() const;

 private:
  // Points of one allocation.
  static constexpr std::size_t kBlockPoints = 31;
  struct Block {
    std::uint32_t used = 0;
    std::array<HistoryPoint, kBlockPoints> points;
  };
  // Blocks move between series by pointer only.
  using BlockPtr = std::unique_ptr<Block>;
  // Points of one task, and its last result.
  struct Series {
    SlaTestType type = SlaTestType::kNone;
    std::string destination, vrf;
    std::int64_t runs = 0, finish_time = 0;  ///< of the last result
    double period = 0;                       ///< seconds between the last two
    std::deque<BlockPtr> blocks{};
  };

  // Steps of Record, and what they count.
  [[nodiscard]] std::size_t Bytes() const;
  void RecordTask(Series* series, const client::TaskStatistics& task);
  void Append(Series* series, const HistoryPoint& point);
  void DropFront(Series* series);
  void DropLater(Series* series, std::uint32_t time);
  void DropOld(std::int64_t now);
  void MakeRoom();
  [[nodiscard]] HistoryPoint PointOf(const client::TaskStatistics& task);
  [[nodiscard]] std::uint16_t ReasonNumber(const std::string& reason);

  // The limits; the tasks by id; reasons by number; totals over all tasks.
  const std::size_t max_bytes_;
  const std::int64_t keep_seconds_;
  std::map<std::int32_t, Series> tasks_;
  std::vector<std::string> reasons_;
  std::size_t blocks_ = 0, points_ = 0;
  std::uint64_t missed_ = 0;
};

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_HISTORY_H_
