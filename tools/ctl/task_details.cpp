#include <ctime>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "ctl/display_text.h"
#include "ctl/task_view.h"

namespace ipsla::ctl {
namespace {

using client::DirectionValues;
using client::TaskStatistics;

constexpr std::size_t kLabelWidth = 18;
constexpr std::size_t kValueWidth = 10;

std::string TimeText(std::int64_t seconds) {
  return fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::localtime(static_cast<std::time_t>(seconds)));
}

template <typename... Values>
std::string Line(const char* label, const Values&... values) {
  std::string line = "  " + PadRight(label, kLabelWidth);
  ((line += PadLeft(values, kValueWidth)), ...);
  return line;
}

std::string ValueLine(const char* label, const DirectionValues& values) {
  return Line(label, MillisecondsText(values.min), MillisecondsText(values.avg),
              MillisecondsText(values.max), MillisecondsText(values.deviation));
}

std::string Header(const TaskView& task, bool colour) {
  const TaskStatistics& last = *task.last;
  std::string place = last.vrf.empty() ? "" : ", VRF " + Printable(last.vrf);
  if (!last.interface.empty()) {
    place += ", interface " + Printable(last.interface);
  }
  const TableCell result = ResultCell(task);
  return fmt::format("task {} {} {} -> {}{}: {}", task.id, TypeText(last),
                     last.src_address.empty() ? kNoValue : Printable(last.src_address),
                     last.dst_address.empty() ? kNoValue : Printable(last.dst_address), place,
                     Styled(result.text, result.style, colour));
}

void AddTimes(const TaskStatistics& last, std::vector<std::string>* lines) {
  lines->push_back(Line("ms", "min", "avg", "max", "deviation"));
  if (last.rtt) {
    lines->push_back(
        ValueLine("round trip", {last.rtt->min, last.rtt->avg, last.rtt->max, std::nullopt}));
  }
  if (!IsJitterType(last.type)) {
    return;
  }
  if (last.latency) {
    lines->push_back(ValueLine("one-way SD", last.latency->sd));
    lines->push_back(ValueLine("one-way DS", last.latency->ds));
  }
  if (last.jitter) {
    lines->push_back(ValueLine("jitter SD", last.jitter->sd));
    lines->push_back(ValueLine("jitter DS", last.jitter->ds));
  }
}

void AddCounts(const TaskStatistics& last, std::vector<std::string>* lines) {
  const auto count = [](std::int64_t value) { return std::to_string(value); };
  lines->push_back(Line("probes", "SD", "DS"));
  lines->push_back(Line("packets", count(last.sd_packets), count(last.ds_packets)));
  lines->push_back(Line("samples", count(last.sd_samples), count(last.ds_samples)));
  if (!IsJitterType(last.type)) {
    return;
  }
  if (last.loss) {
    lines->push_back(Line("lost", count(last.loss->sd_loss), count(last.loss->ds_loss)));
    lines->push_back(
        Line("lost %", NumberText(last.loss->sd_percent, 1), NumberText(last.loss->ds_percent, 1)));
  }
  if (last.out_of_sequence) {
    lines->push_back(
        Line("out of sequence", count(last.out_of_sequence->sd), count(last.out_of_sequence->ds)));
  }
  if (last.loss) {
    lines->push_back(fmt::format("  late {}, skipped {}, duplicate {}", last.loss->late_arrival,
                                 last.loss->skipped, last.loss->duplicate));
  }
}

}  // namespace

std::vector<std::string> TaskDetails(const TaskView& task, std::int64_t now, bool colour) {
  if (!task.last) {
    return {fmt::format("task {}: {}", task.id, ResultCell(task).text)};
  }
  const TaskStatistics& last = *task.last;
  std::vector<std::string> lines{Header(task, colour)};
  lines.push_back(fmt::format("  run of {} to {}, {} ago; {} ok, {} failed",
                              TimeText(last.start_time), TimeText(last.finish_time),
                              AgeText(now - last.finish_time), last.successful_count,
                              last.failed_count));
  if (last.Failed()) {
    const TableCell error = ErrorCell(task);
    lines.push_back("  " + Styled(error.text, error.style, colour));
    return lines;
  }
  AddTimes(last, &lines);
  AddCounts(last, &lines);
  return lines;
}

}  // namespace ipsla::ctl
