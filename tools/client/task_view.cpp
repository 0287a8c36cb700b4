#include "client/task_view.h"

#include <algorithm>

namespace ipsla::client {
namespace {

constexpr const char* kNoUsableReplies = "no usable replies";

bool HasFigures(const TaskStatistics& task) {
  return !task.Failed() && !HasNoUsableReplies(task);
}

/// When the task was started at the latest: it had been when its last run began.
bool IsLifeOver(const TaskPlan& plan, const TaskStatistics& last, std::int64_t now) {
  return plan.life_s && now - last.start_time > *plan.life_s;
}

/// Whether the life is over if the task has run once in every period.
bool IsLifeLikelyOver(const TaskPlan& plan, const TaskStatistics& last, std::int64_t now) {
  const std::int64_t runs = last.successful_count + last.failed_count;
  const std::int64_t before_last = std::max<std::int64_t>(runs - 1, 0) * plan.period_s;
  return plan.life_s && now - (last.start_time - before_last) > *plan.life_s;
}

std::string Seconds(std::int64_t seconds) {
  return std::to_string(seconds) + " s";
}

}  // namespace

SlaTestType TaskView::Type() const {
  if (last && last->type != SlaTestType::kNone) {
    return last->type;
  }
  return plan ? plan->type : SlaTestType::kNone;
}

bool HasNoUsableReplies(const TaskStatistics& task) {
  if (task.Failed()) {
    return false;
  }
  return task.type == SlaTestType::kUdpJitterNtp || (task.rtt && !task.rtt->avg);
}

bool AreDirectionLossesSound(const TaskStatistics& task) {
  return task.loss && IsJitterType(task.type) && HasFigures(task) && task.loss->skipped == 0 &&
         task.loss->sd_loss >= 0 && task.loss->ds_loss >= 0;
}

TaskFigures Figures(const TaskStatistics& task) {
  TaskFigures figures;
  if (!HasFigures(task)) {
    return figures;
  }
  if (task.rtt) {
    figures.rtt = task.rtt->avg;
  }
  if (task.sd_packets > 0) {
    const auto lost =
        static_cast<double>(std::max<std::int64_t>(task.sd_packets - task.ds_packets, 0));
    figures.loss = 100.0 * lost / static_cast<double>(task.sd_packets);
  }
  // An echo test measures the round trip only; what it reports of one direction are zeros.
  if (!IsJitterType(task.type)) {
    return figures;
  }
  if (task.latency) {
    figures.latency_sd = task.latency->sd.avg;
    figures.latency_ds = task.latency->ds.avg;
  }
  if (task.jitter) {
    figures.jitter_sd = task.jitter->sd.deviation;
    figures.jitter_ds = task.jitter->ds.deviation;
  }
  if (AreDirectionLossesSound(task)) {
    figures.loss_sd = task.loss->sd_percent;
    figures.loss_ds = task.loss->ds_percent;
  }
  return figures;
}

std::string ReasonOf(const TaskView& task) {
  if (!task.last) {
    return "";
  }
  if (task.last->Failed()) {
    return task.last->error.empty() ? "the last run failed" : task.last->error;
  }
  return HasNoUsableReplies(*task.last) ? kNoUsableReplies : "";
}

std::optional<std::int64_t> AgeOf(const TaskView& task, std::int64_t now) {
  if (!task.last) {
    return std::nullopt;
  }
  return std::max<std::int64_t>(now - task.last->finish_time, 0);
}

Freshness FreshnessOf(const TaskView& task, std::int64_t now,
                      std::optional<std::int64_t> max_age_s) {
  const auto age = AgeOf(task, now);
  if (!age) {
    return {};
  }
  const bool knows_period = task.plan && task.plan->period_s > 0;
  if (task.plan && IsLifeOver(*task.plan, *task.last, now)) {
    return {true, "its life of " + Seconds(*task.plan->life_s) + " has ended"};
  }
  if (knows_period && *age > 2 * task.plan->period_s) {
    if (IsLifeLikelyOver(*task.plan, *task.last, now)) {
      return {true, "its life of " + Seconds(*task.plan->life_s) + " has ended"};
    }
    return {true, "older than twice its period of " + Seconds(task.plan->period_s)};
  }
  if (max_age_s && *age > *max_age_s) {
    return {true, "older than " + Seconds(*max_age_s)};
  }
  if (!knows_period && !max_age_s) {
    return {};
  }
  return {false, ""};
}

}  // namespace ipsla::client
