#include "exporter/task_measures.h"

namespace ipsla::exporter {
namespace {

using client::DirectionValues;
using client::TaskStatistics;

Value Seconds(const Value& value) {
  return value ? Value(*value / kMillisecondsPerSecond) : std::nullopt;
}

Value Ratio(const Value& percent) {
  if (!percent || *percent < 0 || *percent > kPercent) {
    return std::nullopt;
  }
  return *percent / kPercent;
}

TimeMeasures Times(const DirectionValues& values) {
  return {Seconds(values.min), Seconds(values.avg), Seconds(values.max)};
}

void AddJitterTypes(const TaskStatistics& task, TaskMeasures* measures) {
  // A minimum that is still where it started has seen no sample; the average beside it is then 0 or
  // no number.
  if (!task.rtt || !task.rtt->min) {
    return;
  }
  measures->rtt = {Seconds(task.rtt->min), Seconds(task.rtt->avg), Seconds(task.rtt->max)};
  if (task.latency) {
    measures->delay_sd = Times(task.latency->sd);
    measures->delay_ds = Times(task.latency->ds);
  }
  if (task.jitter) {
    measures->jitter_sd = Seconds(task.jitter->sd.deviation);
    measures->jitter_ds = Seconds(task.jitter->ds.deviation);
  }
}

PacketMeasures Packets(const TaskStatistics& task) {
  PacketMeasures packets{.sent = task.sd_packets, .received = task.ds_packets};
  if (IsJitterType(task.type) && task.loss) {
    packets.late = task.loss->late_arrival;
    packets.skipped = task.loss->skipped;
    packets.duplicate = task.loss->duplicate;
  }
  return packets;
}

}  // namespace

TaskMeasures MeasuresOf(const TaskStatistics& task) {
  TaskMeasures measures;
  if (task.Failed() || task.type == SlaTestType::kNone) {
    return measures;
  }
  measures.packets = Packets(task);
  if (client::HasNoUsableReplies(task)) {
    return measures;
  }
  const client::TaskFigures figures = client::Figures(task);
  measures.loss = Ratio(figures.loss);
  if (IsJitterType(task.type)) {
    AddJitterTypes(task, &measures);
  } else if (task.rtt) {
    measures.rtt = {std::nullopt, Seconds(task.rtt->avg), Seconds(task.rtt->max)};
  }
  if (task.type == SlaTestType::kUdpJitter) {
    measures.loss_sd = Ratio(figures.loss_sd);
    measures.loss_ds = Ratio(figures.loss_ds);
  }
  return measures;
}

}  // namespace ipsla::exporter
