#include <ctime>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "ctl/display_text.h"
#include "ctl/task_view.h"

namespace ipsla::ctl {
namespace {

using client::DirectionValues;
using client::TaskStatistics;
using client::Value;

constexpr std::size_t kIndent = 2;

std::string TimeText(std::int64_t seconds) {
  return fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::localtime(static_cast<std::time_t>(seconds)));
}

/// Widths of the columns of values: the label and, four times at most, a value.
struct ValueColumns {
  std::size_t label, value;
};

ValueColumns ColumnsFor(const TableLayout& layout) {
  constexpr ValueColumns kWide{18, 10};
  constexpr ValueColumns kNarrow{12, 6};
  const std::size_t needed = kIndent + kWide.label + 4 * kWide.value;
  return layout.width == 0 || layout.width >= needed ? kWide : kNarrow;
}

/// The lines of one task, no wider than the layout.
class DetailWriter {
 public:
  explicit DetailWriter(const TableLayout& layout)
      : layout_(layout), columns_(ColumnsFor(layout)) {}

  /// "task ... : RESULT", the result in its style.
  void Header(const std::string& text, const TableCell& result) {
    std::vector<std::string> parts = WrapText(text + " " + result.text, layout_.width);
    std::string& last = parts.back();
    if (last.ends_with(result.text)) {
      last.resize(last.size() - result.text.size());
      last += Styled(result.text, result.style, layout_.colour);
    }
    lines_.insert(lines_.end(), parts.begin(), parts.end());
  }

  void Note(const std::string& text, CellStyle style = CellStyle::kPlain) {
    const std::size_t room = layout_.width > kIndent ? layout_.width - kIndent : layout_.width;
    for (const std::string& line : WrapText(text, room)) {
      lines_.push_back(std::string(kIndent, ' ') + Styled(line, style, layout_.colour));
    }
  }

  template <typename... Values>
  void Line(const char* label, const Values&... values) {
    std::string line = std::string(kIndent, ' ') + PadRight(label, columns_.label);
    ((line += PadLeft(values, columns_.value)), ...);
    lines_.push_back(std::move(line));
  }

  void Milliseconds(const char* label, const DirectionValues& values) {
    Line(label, MillisecondsText(values.min), MillisecondsText(values.avg),
         MillisecondsText(values.max), MillisecondsText(values.deviation));
  }

  void Counts(const char* label, std::int64_t sd, std::int64_t ds) {
    Line(label, std::to_string(sd), std::to_string(ds));
  }

  [[nodiscard]] bool IsNarrow() const { return columns_.value < 10; }
  std::vector<std::string> Take() { return std::move(lines_); }

 private:
  const TableLayout& layout_;
  const ValueColumns columns_;
  std::vector<std::string> lines_;
};

void AddHeader(const TaskView& task, const TaskRules& rules, DetailWriter* lines) {
  const TaskStatistics& last = *task.last;
  std::string place = last.vrf.empty() ? "" : ", VRF " + Printable(last.vrf);
  if (!last.interface.empty()) {
    place += ", interface " + Printable(last.interface);
  }
  const auto address = [](const std::string& text) {
    return text.empty() ? kNoValue : Printable(text);
  };
  lines->Header(fmt::format("task {} {} {} -> {}{}:", task.id, TypeText(last.type),
                            address(last.src_address), address(last.dst_address), place),
                ResultCell(task, rules));
  lines->Note(fmt::format("run of {} to {}, {} ago; {} ok, {} failed", TimeText(last.start_time),
                          TimeText(last.finish_time), AgeCell(task, rules).text,
                          last.successful_count, last.failed_count));
  for (const TableCell& note : TaskNotes(task, rules)) {
    lines->Note(note.text, note.style);
  }
}

void AddTimes(const TaskStatistics& last, const client::ClockState& clock, DetailWriter* lines) {
  const bool is_jitter = IsJitterType(last.type);
  lines->Line("ms", "min", "avg", "max", lines->IsNarrow() ? "dev" : "deviation");
  if (last.rtt) {
    // The minimum of an echo type is no measurement: it starts at 0 and stays there.
    const Value least = is_jitter ? last.rtt->min : std::nullopt;
    lines->Milliseconds("round trip", {least, last.rtt->avg, last.rtt->max, {}});
  }
  if (!is_jitter) {
    return;
  }
  if (last.latency) {
    lines->Milliseconds("one-way SD", last.latency->sd);
    lines->Milliseconds("one-way DS", last.latency->ds);
  }
  if (last.jitter) {
    // The other three are kept, but nothing computes them.
    lines->Milliseconds("jitter SD", {{}, {}, {}, last.jitter->sd.deviation});
    lines->Milliseconds("jitter DS", {{}, {}, {}, last.jitter->ds.deviation});
  }
  const bool is_fine = clock.synchronised.value_or(true);
  lines->Note("clock of this machine: " + client::ClockText(clock),
              is_fine ? CellStyle::kPlain : CellStyle::kDoubtful);
}

void AddLoss(const TaskStatistics& last, DetailWriter* lines) {
  if (client::AreDirectionLossesSound(last)) {
    lines->Counts("lost", last.loss->sd_loss, last.loss->ds_loss);
    lines->Line("lost %", NumberText(last.loss->sd_percent, 1),
                NumberText(last.loss->ds_percent, 1));
  } else {
    lines->Line("lost", kNoValue, kNoValue);
    lines->Line("lost %", kNoValue, kNoValue);
  }
}

void AddProbes(const TaskStatistics& last, DetailWriter* lines) {
  lines->Line("probes", "SD", "DS");
  lines->Counts("packets", last.sd_packets, last.ds_packets);
  lines->Counts("samples", last.sd_samples, last.ds_samples);
  if (!IsJitterType(last.type)) {
    return;
  }
  if (last.loss) {
    AddLoss(last, lines);
  }
  if (last.out_of_sequence) {
    lines->Counts(lines->IsNarrow() ? "out of seq." : "out of sequence", last.out_of_sequence->sd,
                  last.out_of_sequence->ds);
  }
  if (last.loss) {
    lines->Note(fmt::format("late {}, skipped {}, duplicate {}", last.loss->late_arrival,
                            last.loss->skipped, last.loss->duplicate));
  }
}

}  // namespace

std::vector<std::string> TaskDetails(const TaskView& task, const TaskRules& rules,
                                     const client::ClockState& clock, const TableLayout& layout) {
  DetailWriter lines(layout);
  if (!task.last) {
    lines.Header(fmt::format("task {}:", task.id), ResultCell(task, rules));
    return lines.Take();
  }
  const TaskStatistics& last = *task.last;
  AddHeader(task, rules, &lines);
  if (client::HasNoUsableReplies(last)) {
    lines.Note(
        fmt::format("{} probes sent, {} replies, none usable", last.sd_packets, last.ds_packets));
  } else if (!last.Failed()) {
    AddTimes(last, clock, &lines);
    AddProbes(last, &lines);
  }
  return lines.Take();
}

}  // namespace ipsla::ctl
