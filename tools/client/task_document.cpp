#include "client/task_document.h"

#include <utility>

#include <cjson/cJSON.h>

namespace ipsla::client {
namespace {

using Count = std::optional<std::int64_t>;

/// Builds one object, key by key.
class ObjectWriter {
 public:
  ObjectWriter() : object_(cJSON_CreateObject()) {}

  void Add(const char* key, const Value& value) {
    Attach(key, value ? cJSON_CreateNumber(*value) : cJSON_CreateNull());
  }
  void Add(const char* key, const Count& count) {
    Add(key, count ? Value(static_cast<double>(*count)) : Value());
  }
  void Add(const char* key, const std::optional<bool>& flag) {
    Attach(key, flag ? cJSON_CreateBool(static_cast<cJSON_bool>(*flag)) : cJSON_CreateNull());
  }
  /// An empty text is null.
  void Add(const char* key, const std::string& text) {
    Attach(key, text.empty() ? cJSON_CreateNull() : cJSON_CreateString(text.c_str()));
  }
  void Add(const char* key, JsonDocument value) { Attach(key, value.release()); }

  /// Owned by the object.
  cJSON* AddArray(const char* key) { return cJSON_AddArrayToObject(object_.get(), key); }

  JsonDocument Take() { return std::move(object_); }

 private:
  void Attach(const char* key, cJSON* item) { cJSON_AddItemToObject(object_.get(), key, item); }

  JsonDocument object_;
};

/// What a document says of one task, told apart from what is only a zero.
class TaskWriter {
 public:
  TaskWriter(const TaskView& task, const DocumentContext& context)
      : task_(task),
        context_(context),
        last_(task.last ? *task.last : kNone),
        measured_(task.last && !task.last->Failed()),
        usable_(measured_ && !HasNoUsableReplies(*task.last)),
        is_jitter_(IsJitterType(last_.type)) {}

  JsonDocument Write() {
    AddState();
    AddEndpoints();
    AddCounts();
    object_.Add("jitter-values", Jitter());
    object_.Add("loss-values", Loss());
    object_.Add("one-way-latency-values", Latency());
    object_.Add("out-of-sequence-values", OutOfSequence());
    object_.Add("rtt-values", Rtt());
    return object_.Take();
  }

 private:
  [[nodiscard]] Count OfResult(std::int64_t count) const {
    return task_.last ? Count(count) : Count();
  }
  [[nodiscard]] Count Measured(std::int64_t count) const {
    return measured_ ? Count(count) : Count();
  }

  void AddState() {
    const auto fresh = FreshnessOf(task_, context_.now, context_.max_age_s);
    const auto& plan = task_.plan;
    object_.Add("sla-id", Count(task_.id));
    object_.Add("schedule", std::optional<bool>(task_.scheduled));
    object_.Add("status", task_.last ? last_.status : std::string("not run"));
    object_.Add("error-description", last_.error);
    object_.Add("reason", ReasonOf(task_));
    object_.Add("start-time", OfResult(last_.start_time));
    object_.Add("finish-time", OfResult(last_.finish_time));
    object_.Add("age-seconds", AgeOf(task_, context_.now));
    object_.Add("period-seconds", plan && plan->period_s > 0 ? Count(plan->period_s) : Count());
    object_.Add("stale", fresh.stale);
    object_.Add("stale-reason", fresh.reason);
    object_.Add("successful-count", OfResult(last_.successful_count));
    object_.Add("failed-count", OfResult(last_.failed_count));
  }

  void AddEndpoints() {
    const SlaTestType type = task_.Type();
    const bool is_known = type != SlaTestType::kNone;
    // The daemon's word counts: an edited file need not have been read yet.
    const bool from_result = last_.type != SlaTestType::kNone;
    const TaskPlan plan = task_.plan.value_or(TaskPlan{});
    object_.Add("vrf-instance", from_result ? last_.vrf : plan.vrf);
    object_.Add("test-type", is_known ? Count(NumberOf(type)) : Count());
    object_.Add("type", is_known ? TestTypeToString(type) : std::string());
    object_.Add("src-address", from_result ? last_.src_address : plan.src_address);
    object_.Add("dst-address", from_result ? last_.dst_address : plan.dst_address);
    object_.Add("iface-name", from_result ? last_.interface : plan.interface);
  }

  void AddCounts() {
    object_.Add("transm-pkt-count", Measured(last_.transmitted));
    object_.Add("sd-smp-count", Measured(last_.sd_samples));
    object_.Add("ds-smp-count", Measured(last_.ds_samples));
    object_.Add("sd-pkt-count", Measured(last_.sd_packets));
    object_.Add("ds-pkt-count", Measured(last_.ds_packets));
    object_.Add("loss-percent", task_.last ? Figures(last_).loss : Value());
  }

  /// Minimum, average and maximum of the jitter are in the daemon's reply, but nothing computes
  /// them.
  [[nodiscard]] JsonDocument Jitter() const {
    const auto jitter = usable_ && is_jitter_ ? last_.jitter : std::nullopt;
    ObjectWriter group;
    group.Add("sd-min", Value());
    group.Add("sd-avg", Value());
    group.Add("sd-sd", jitter ? jitter->sd.deviation : Value());
    group.Add("sd-max", Value());
    group.Add("ds-min", Value());
    group.Add("ds-avg", Value());
    group.Add("ds-sd", jitter ? jitter->ds.deviation : Value());
    group.Add("ds-max", Value());
    return group.Take();
  }

  [[nodiscard]] JsonDocument Loss() const {
    const auto loss = measured_ && is_jitter_ ? last_.loss : std::nullopt;
    const bool is_sound = loss && AreDirectionLossesSound(last_);
    const auto directed = [is_sound](std::int64_t count) {
      return is_sound ? Count(count) : Count();
    };
    const LossValues values = loss.value_or(LossValues{});
    ObjectWriter group;
    group.Add("sd-loss", directed(values.sd_loss));
    group.Add("ds-loss", directed(values.ds_loss));
    group.Add("sd-loss-pct", is_sound ? values.sd_percent : Value());
    group.Add("ds-loss-pct", is_sound ? values.ds_percent : Value());
    group.Add("late-arrival", loss && usable_ ? Count(values.late_arrival) : Count());
    group.Add("skipped", loss ? Count(values.skipped) : Count());
    group.Add("duplicate", loss ? Count(values.duplicate) : Count());
    return group.Take();
  }

  [[nodiscard]] JsonDocument Latency() const {
    const auto latency = usable_ && is_jitter_ ? last_.latency : std::nullopt;
    const TwoWayValues values = latency.value_or(TwoWayValues{});
    ObjectWriter group;
    group.Add("sd-min", values.sd.min);
    group.Add("sd-avg", values.sd.avg);
    group.Add("sd-max", values.sd.max);
    group.Add("ds-min", values.ds.min);
    group.Add("ds-avg", values.ds.avg);
    group.Add("ds-max", values.ds.max);
    return group.Take();
  }

  [[nodiscard]] JsonDocument OutOfSequence() const {
    const auto order = usable_ && is_jitter_ ? last_.out_of_sequence : std::nullopt;
    ObjectWriter group;
    group.Add("sd-out-of-sequence", order ? Count(order->sd) : Count());
    group.Add("ds-out-of-sequence", order ? Count(order->ds) : Count());
    return group.Take();
  }

  [[nodiscard]] JsonDocument Rtt() const {
    const RttValues values = usable_ ? last_.rtt.value_or(RttValues{}) : RttValues{};
    ObjectWriter group;
    // The minimum of an echo type starts at 0 and so stays there.
    group.Add("min", is_jitter_ ? values.min : Value());
    group.Add("avg", values.avg);
    group.Add("max", values.max);
    return group.Take();
  }

  static inline const TaskStatistics kNone{};

  const TaskView& task_;
  const DocumentContext& context_;
  const TaskStatistics& last_;
  const bool measured_;  // a run that did not fail
  const bool usable_;    // and had usable replies
  const bool is_jitter_;
  ObjectWriter object_;
};

}  // namespace

JsonDocument TaskObject(const TaskView& task, const DocumentContext& context) {
  return TaskWriter(task, context).Write();
}

JsonDocument ClockObject(const ClockState& clock) {
  ObjectWriter object;
  object.Add("synchronised", clock.synchronised);
  object.Add("estimated-error-ms", clock.estimated_error_ms);
  object.Add("maximum-error-ms", clock.maximum_error_ms);
  return object.Take();
}

JsonDocument TasksDocument(const std::vector<TaskView>& tasks, const DocumentContext& context) {
  ObjectWriter document;
  document.Add("time", Count(context.now));
  document.Add("clock", ClockObject(context.clock));
  cJSON* array = document.AddArray("tasks");
  for (const TaskView& task : tasks) {
    cJSON_AddItemToArray(array, TaskObject(task, context).release());
  }
  if (!context.unknown_ids.empty()) {
    cJSON* unknown = document.AddArray("unknown");
    for (const std::int32_t id : context.unknown_ids) {
      cJSON_AddItemToArray(unknown, cJSON_CreateNumber(id));
    }
  }
  return document.Take();
}

std::string JsonLine(const cJSON* document) {
  const JsonText text(cJSON_PrintUnformatted(document));
  return text == nullptr ? "" : text.get();
}

}  // namespace ipsla::client
