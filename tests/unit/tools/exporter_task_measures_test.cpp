#include <cmath>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exporter/task_measures.h"
#include "tools/exporter_results.h"

namespace ipsla::exporter {
namespace {

using test::FailedResult;
using test::Result;

void ExpectNoTimes(const TaskMeasures& measures) {
  for (const TimeMeasures& times : {measures.rtt, measures.delay_sd, measures.delay_ds}) {
    EXPECT_FALSE(times.min || times.mean || times.max);
  }
  EXPECT_FALSE(measures.jitter_sd || measures.jitter_ds);
}

TEST(ExporterTaskMeasures, ConvertToBaseUnits) {
  const TaskMeasures measures = MeasuresOf(Result(1, SlaTestType::kUdpJitter));
  EXPECT_EQ(measures.rtt.min, 0.001);
  EXPECT_EQ(measures.rtt.mean, 0.002);
  EXPECT_EQ(measures.rtt.max, 0.003);
  EXPECT_EQ(measures.delay_sd.min, 0.00025);
  EXPECT_EQ(measures.delay_sd.mean, 0.0005);
  EXPECT_EQ(measures.delay_ds.max, 0.00175);
  EXPECT_EQ(measures.jitter_sd, 0.000125);
  EXPECT_EQ(measures.jitter_ds, 0.000375);
  EXPECT_EQ(measures.loss, 0.2);
  EXPECT_EQ(measures.loss_sd, 0.1);
  EXPECT_EQ(measures.loss_ds, 0.125);
  ASSERT_TRUE(measures.packets);
  EXPECT_EQ(measures.packets->sent, 10);
  EXPECT_EQ(measures.packets->received, 8);
  EXPECT_EQ(measures.packets->late, 3);
  EXPECT_EQ(measures.packets->skipped, 0);
  EXPECT_EQ(measures.packets->duplicate, 5);
}

TEST(ExporterTaskMeasures, HaveNothingOfAFailedRun) {
  const TaskMeasures measures =
      MeasuresOf(FailedResult(1, SlaTestType::kUdpJitter, "timeout, no samples"));
  ExpectNoTimes(measures);
  EXPECT_FALSE(measures.loss || measures.loss_sd || measures.loss_ds);
  EXPECT_FALSE(measures.packets);
}

TEST(ExporterTaskMeasures, HaveTheRoundTripAloneOfEchoTypes) {
  for (const SlaTestType type : {SlaTestType::kUdpEcho, SlaTestType::kIcmpEcho}) {
    TaskMeasures measures = MeasuresOf(Result(1, type));
    EXPECT_FALSE(measures.rtt.min) << "it is 0 whatever was measured";
    EXPECT_EQ(measures.rtt.mean, 0.002);
    EXPECT_EQ(measures.rtt.max, 0.003);
    EXPECT_EQ(measures.loss, 0.2);
    EXPECT_FALSE(measures.loss_sd || measures.loss_ds);
    EXPECT_FALSE(measures.packets->late || measures.packets->skipped ||
                 measures.packets->duplicate);
    measures.rtt = {};
    ExpectNoTimes(measures);
  }
}

TEST(ExporterTaskMeasures, TellNoDirectionOfIcmpLoss) {
  const TaskMeasures measures = MeasuresOf(Result(1, SlaTestType::kIcmpJitter));
  EXPECT_EQ(measures.loss, 0.2);
  EXPECT_FALSE(measures.loss_sd || measures.loss_ds);
  EXPECT_EQ(measures.delay_ds.mean, 0.0015);
}

TEST(ExporterTaskMeasures, HaveOnlyCountsOfNtpRuns) {
  client::TaskStatistics task = Result(1, SlaTestType::kUdpJitterNtp);
  const TaskMeasures measures = MeasuresOf(task);
  ExpectNoTimes(measures);
  EXPECT_FALSE(measures.loss || measures.loss_sd || measures.loss_ds);
  EXPECT_EQ(measures.packets->skipped, 0);
}

// Its minima are where they started, its averages 0 or no number.
TEST(ExporterTaskMeasures, HaveNoTimesOfARunWithoutAUsableReply) {
  client::TaskStatistics task = Result(1, SlaTestType::kUdpJitter);
  task.rtt = {std::nullopt, 0.0, std::nullopt};
  ExpectNoTimes(MeasuresOf(task));
}

// A reply that was not usable is missing in one of the two counts that make a direction's loss.
TEST(ExporterTaskMeasures, LeaveOutDirectionsOfLossThatCannotBeBelieved) {
  client::TaskStatistics task = Result(1, SlaTestType::kUdpJitter);
  task.loss->skipped = 1;
  EXPECT_EQ(MeasuresOf(task).loss, 0.2);
  EXPECT_FALSE(MeasuresOf(task).loss_sd || MeasuresOf(task).loss_ds);
  task.loss->skipped = 0;
  task.loss->ds_percent = 100.5;
  EXPECT_EQ(MeasuresOf(task).loss_sd, 0.1);
  EXPECT_FALSE(MeasuresOf(task).loss_ds);
  task.loss->sd_percent = 0.0;
  task.loss->ds_percent = 100.0;
  EXPECT_EQ(MeasuresOf(task).loss_sd, 0.0);
  EXPECT_EQ(MeasuresOf(task).loss_ds, 1.0);
}

}  // namespace
}  // namespace ipsla::exporter
