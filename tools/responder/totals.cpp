#include "responder/totals.h"

#include <algorithm>

#include <fmt/format.h>

namespace ipsla::responder {

namespace {

constexpr std::int64_t kNanosecondsPerMicrosecond = 1000;

}  // namespace

void ReplyTimes::Note(std::int64_t nanoseconds) {
  // Rounded up, so that "at most" is true.
  const std::int64_t time =
      (std::max<std::int64_t>(nanoseconds, 0) + kNanosecondsPerMicrosecond - 1) /
      kNanosecondsPerMicrosecond;
  const auto* const bound = std::lower_bound(kBounds.begin(), kBounds.end(), time);
  ++counts_.at(static_cast<std::size_t>(bound - kBounds.begin()));
  ++replies_;
  longest_ = std::max(longest_, time);
}

std::string ReplyTimes::AtMost(std::uint64_t rank) const {
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < kBounds.size(); ++i) {
    seen += counts_.at(i);
    if (seen >= rank) return fmt::format("at most {}", std::min(kBounds.at(i), longest_));
  }
  return fmt::format("at most {}", longest_);
}

std::string ReplyTimes::Describe() const {
  if (replies_ == 0) return "none";
  return fmt::format("median {}, 99 % {}, longest {}", AtMost((replies_ + 1) / 2),
                     AtMost(replies_ - replies_ / 100), longest_);
}

void RefusalCounts::Note(const ControlPhaseMessage& answer) {
  std::size_t block = 0;
  SlaControlStatus status = answer.status;
  if (status == SlaControlStatus::kFail) {
    const bool authentication = answer.auth_status != SlaControlStatus::kSuccessful;
    block = authentication ? 1 : 2;
    status = authentication ? answer.auth_status : answer.measurement_status;
  }
  ++counts_.at(block).at(static_cast<std::size_t>(status));
  ++total_;
}

std::vector<std::string> RefusalCounts::Describe() const {
  constexpr std::array<const char*, kBlocks> kNames = {"", "authentication: ", "measurement: "};
  std::vector<std::string> texts;
  for (std::size_t block = 0; block < kBlocks; ++block) {
    for (std::size_t status = 0; status < kStatuses; ++status) {
      const std::uint64_t count = counts_.at(block).at(status);
      if (count == 0) continue;
      const auto name = ControlStatusToString(static_cast<SlaControlStatus>(status));
      texts.push_back(fmt::format("{}{} {}", kNames.at(block), name, count));
    }
  }
  return texts;
}

std::vector<std::string> DescribeTotals(const Totals& totals, const SessionTable& sessions) {
  SessionStatistics probes = totals.probes;
  sessions.ForEach([&probes](const Session& session) { probes += session.run.statistics; });
  std::vector<std::string> lines;
  lines.push_back(
      fmt::format("sessions: open {}, opened {}, ended {}, idle {}, replaced {}, answered again "
                  "{}, shortened {}",
                  sessions.Size(), totals.opened, totals.ended, totals.idle, totals.replaced,
                  totals.answered_again, totals.shortened));
  lines.push_back(fmt::format(
      "probes: received {}, distinct {}, duplicates {}, out of order {}, replies {}",
      probes.received, probes.distinct, probes.duplicates, probes.out_of_order, probes.replies));
  lines.push_back(fmt::format(
      "probes without reply: stray {}, wrong type or length {}, duplicates beyond the bound {}, "
      "not sent {}, dropped by the kernel {}",
      totals.stray, probes.malformed, probes.unanswered, probes.unsent, totals.dropped_by_kernel));
  lines.push_back("microseconds from arrival to reply: " + totals.reply_times.Describe());
  lines.push_back(fmt::format("requests: received {}, refused {}, ignored {}, given up {}",
                              totals.requests, totals.refusals.Total(), totals.ignored,
                              totals.out_of_memory));
  for (const std::string& reason : totals.refusals.Describe()) {
    lines.push_back("refused: " + reason);
  }
  lines.push_back(
      fmt::format("refused for: repeated request {}, no room {}, no room for the source {}",
                  totals.repeated, totals.full, totals.full_for_source));
  lines.push_back(fmt::format("answers not sent: held back {}, failed {}", totals.held_back,
                              totals.answers_unsent));
  for (std::string& line : lines) line.insert(0, "statistics: ");
  return lines;
}

}  // namespace ipsla::responder
