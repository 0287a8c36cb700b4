#include <array>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exporter/history.h"
#include "exporter/history_json.h"
#include "tools/exporter_results.h"

namespace ipsla::exporter {
namespace {

using client::StatisticsMap;
using client::TaskStatistics;

constexpr std::int64_t kBegin = 1700000000;
constexpr std::int64_t kDay = 86400;
constexpr std::size_t kMuch = 64U << 20U;

/// The result of a task's run number `run`, which ended at `time`.
TaskStatistics RunOf(std::int32_t id, std::int64_t run, std::int64_t time,
                     SlaTestType type = SlaTestType::kUdpJitter) {
  TaskStatistics task = test::Result(id, type);
  task.successful_count = run;
  task.failed_count = 0;
  task.finish_time = time;
  return task;
}

void RecordOne(History* history, const TaskStatistics& task) {
  history->Record({{task.id, task}}, task.finish_time);
}

std::vector<std::int64_t> Times(const TaskHistory& history) {
  std::vector<std::int64_t> times;
  for (const HistoryPoint& point : history.points) {
    times.push_back(point.time);
  }
  return times;
}

TEST(ExporterHistoryPoint, KeepsValuesAndTheirAbsence) {
  HistoryPoint point;
  EXPECT_FALSE(point.Get(Column::kRttMin));
  EXPECT_FALSE(point.Failure());
  point.Set(Column::kRttMin, 0.0);
  point.Set(Column::kLossDs, 12.5);
  EXPECT_EQ(point.Get(Column::kRttMin), 0.0);
  EXPECT_EQ(point.Get(Column::kLossDs), 12.5);
  EXPECT_FALSE(point.Failure());
  point.Set(Column::kLossDs, std::nullopt);
  EXPECT_FALSE(point.Get(Column::kLossDs));
}

TEST(ExporterHistoryPoint, KeepsAReasonInsteadOfValues) {
  for (const std::uint16_t reason : std::array<std::uint16_t, 4>{0, 1, 255, 65535}) {
    HistoryPoint point;
    point.Set(Column::kRttMin, 1.0);
    point.Fail(reason);
    EXPECT_EQ(point.Failure(), reason);
    EXPECT_FALSE(point.Get(Column::kRttMin));
  }
}

TEST(ExporterHistory, KeepsOnePointForEachRun) {
  History history(kMuch, kDay);
  RecordOne(&history, RunOf(1, 1, kBegin));
  RecordOne(&history, RunOf(1, 1, kBegin));
  RecordOne(&history, RunOf(1, 2, kBegin + 10));
  RecordOne(&history, RunOf(2, 1, kBegin + 20));
  EXPECT_THAT(Times(history.Read(1, 0, kBegin)), ::testing::ElementsAre(kBegin, kBegin + 10));
  EXPECT_THAT(Times(history.Read(1, kBegin + 1, kBegin)), ::testing::ElementsAre(kBegin + 10));
  EXPECT_EQ(history.Read(2, 0, kBegin).points.size(), 1U);
  EXPECT_TRUE(history.Read(3, 0, kBegin).points.empty());
  EXPECT_EQ(history.State().points, 3U);
  EXPECT_EQ(history.State().missed_runs, 0U);
}

TEST(ExporterHistory, CountsRunsThatItNeverSaw) {
  History history(kMuch, kDay);
  RecordOne(&history, RunOf(1, 5, kBegin));
  EXPECT_EQ(history.ShortestPeriod(), 0);
  RecordOne(&history, RunOf(1, 8, kBegin + 30));
  EXPECT_EQ(history.State().missed_runs, 2U);
  EXPECT_EQ(history.ShortestPeriod(), 10);
  RecordOne(&history, RunOf(1, 1, kBegin + 31));  // the daemon was started anew
  EXPECT_EQ(history.State().missed_runs, 2U);
  EXPECT_EQ(history.State().points, 3U);
}

// A clock set back from a wrong future: what was seen there is not in order with what comes, and a
// block that "ended" years ahead would never become old.
TEST(ExporterHistory, ForgetsWhatEndedInAFutureThatTheClockLeft) {
  constexpr std::int64_t kAhead = kBegin + 3000 * kDay;
  History history(kMuch, kDay);
  for (std::int64_t run = 1; run <= 100; ++run) {
    RecordOne(&history, RunOf(1, run, kAhead + run));
  }
  RecordOne(&history, RunOf(1, 101, kBegin));
  RecordOne(&history, RunOf(1, 102, kBegin + 10));
  RecordOne(&history, RunOf(1, 103, kBegin + 20));
  RecordOne(&history, RunOf(1, 104, kBegin + 15));
  EXPECT_THAT(Times(history.Read(1, 0, kBegin + 20)),
              ::testing::ElementsAre(kBegin, kBegin + 10, kBegin + 15));
  EXPECT_EQ(history.State().points, 3U);
  history.Record({}, kBegin + 2 * kDay);
  EXPECT_EQ(history.State().points, 0U);
  EXPECT_EQ(history.State().bytes, 0U);
}

TEST(ExporterHistory, ForgetsATaskThatBecameAnother) {
  History history(kMuch, kDay);
  RecordOne(&history, RunOf(1, 1, kBegin));
  TaskStatistics moved = RunOf(1, 1, kBegin + 10);
  moved.dst_address = "10.0.0.3";
  RecordOne(&history, moved);
  EXPECT_THAT(Times(history.Read(1, 0, kBegin)), ::testing::ElementsAre(kBegin + 10));
  RecordOne(&history, RunOf(1, 1, kBegin + 20, SlaTestType::kIcmpEcho));
  EXPECT_THAT(Times(history.Read(1, 0, kBegin)), ::testing::ElementsAre(kBegin + 20));
  EXPECT_EQ(history.State().points, 1U);
}

TEST(ExporterHistory, ForgetsWhatIsTooOld) {
  History history(kMuch, 1000);
  for (std::int64_t run = 0; run < 200; ++run) {
    RecordOne(&history, RunOf(1, run + 1, kBegin + 10 * run));
  }
  const std::int64_t last = kBegin + 1990;
  const auto times = Times(history.Read(1, 0, last));
  EXPECT_EQ(times.front(), last - 1000);
  EXPECT_EQ(times.back(), last);
  EXPECT_LT(history.State().points, 101U + 31U) << "whole blocks go";
  history.Record({}, last + 2000);
  EXPECT_EQ(history.State().points, 0U);
  EXPECT_EQ(history.State().bytes, 0U);
}

// A task every minute and one every second: when the memory is used up, both lose the same time.
TEST(ExporterHistory, StaysWithinItsMemoryAndDropsTheOldestOfAll) {
  constexpr std::size_t kLittle = 64U << 10U;
  History history(kLittle, kDay);
  std::size_t most = 0;
  for (std::int64_t second = 0; second < 6000; ++second) {
    StatisticsMap tasks{{1, RunOf(1, second + 1, kBegin + second)},
                        {2, RunOf(2, second / 60 + 1, kBegin + second / 60 * 60)}};
    history.Record(tasks, kBegin + second);
    most = std::max(most, history.State().bytes);
  }
  EXPECT_LE(most, kLittle);
  const auto fast = Times(history.Read(1, 0, kBegin + 6000));
  const auto slow = Times(history.Read(2, 0, kBegin + 6000));
  EXPECT_GT(fast.size(), 1000U);
  EXPECT_LE(slow.size(), fast.size() / 60 + 31 + 1);
  EXPECT_EQ(fast.back(), kBegin + 5999);
  EXPECT_EQ(slow.back(), kBegin + 5940);
}

TEST(ExporterHistory, HasRoomForADayOfAThousandTasksThatRunEveryMinute) {
  History history(kMuch, kDay);
  StatisticsMap tasks;
  for (std::int32_t id = 1; id <= 1000; ++id) {
    tasks[id] = RunOf(id, 1, kBegin);
  }
  constexpr std::int64_t kMinutes = 24 * 60;
  for (std::int64_t minute = 1; minute <= kMinutes; ++minute) {
    for (auto& [id, task] : tasks) {
      task.successful_count = minute;
      task.finish_time = kBegin + 60 * minute;
    }
    history.Record(tasks, kBegin + 60 * minute);
  }
  EXPECT_EQ(history.State().points, 1000U * kMinutes);
  EXPECT_LE(history.State().bytes, kMuch);
}

TEST(ExporterHistory, KeepsNothingWithoutMemory) {
  History history(0, kDay);
  RecordOne(&history, RunOf(1, 1, kBegin));
  EXPECT_TRUE(history.Read(1, 0, kBegin).points.empty());
}

TEST(ExporterHistory, BoundsTheNumberOfReasons) {
  History history(kMuch, kDay);
  for (int run = 0; run < 1000; ++run) {
    TaskStatistics task =
        test::FailedResult(1, SlaTestType::kIcmpEcho, "reason " + std::to_string(run));
    task.failed_count = run + 1;
    RecordOne(&history, task);
  }
  EXPECT_EQ(history.Reasons().size(), 256U);
  EXPECT_EQ(history.Reasons().front(), "reason 0");
  EXPECT_EQ(history.Reasons().back(), "another reason");
}

TEST(ExporterHistoryJson, HasTheColumnsThatHaveValues) {
  History history(kMuch, kDay);
  RecordOne(&history, RunOf(7, 1, kBegin, SlaTestType::kIcmpEcho));
  TaskStatistics failed = test::FailedResult(7, SlaTestType::kIcmpEcho, "a \"b\"\n");
  failed.finish_time = kBegin + 10;
  failed.failed_count = 1;
  failed.successful_count = 1;
  RecordOne(&history, failed);
  EXPECT_EQ(HistoryJson(7, history.Read(7, 0, kBegin), history.Reasons()),
            "{\"sla-id\":7,\"time\":[1700000000,1700000010],\"rtt-avg\":[2,null],"
            "\"rtt-max\":[3,null],\"loss-pct\":[20,null],"
            "\"failures\":[{\"time\":1700000010,\"reason\":\"a \\\"b\\\"?\"}]}");
}

TEST(ExporterHistoryJson, TellsDirectionsWhereTheTypeDoes) {
  History history(kMuch, kDay);
  RecordOne(&history, RunOf(7, 1, kBegin));
  EXPECT_EQ(HistoryJson(7, history.Read(7, 0, kBegin), history.Reasons()),
            "{\"sla-id\":7,\"time\":[1700000000],\"rtt-min\":[1],\"rtt-avg\":[2],\"rtt-max\":[3],"
            "\"sd-avg\":[0.5],\"ds-avg\":[1.5],\"sd-sd\":[0.125],\"ds-sd\":[0.375],"
            "\"sd-loss-pct\":[10],\"ds-loss-pct\":[12.5],\"failures\":[]}");
}

TEST(ExporterHistoryJson, IsEmptyForAnUnknownTask) {
  EXPECT_EQ(HistoryJson(9, {}, {}), "{\"sla-id\":9,\"time\":[],\"failures\":[]}");
}

}  // namespace
}  // namespace ipsla::exporter
