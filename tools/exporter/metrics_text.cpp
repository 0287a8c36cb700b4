#include "exporter/metrics_text.h"

#include <functional>
#include <string_view>
#include <vector>

#include "config/task_config.h"
#include "exporter/task_measures.h"

namespace ipsla::exporter {
namespace {

using client::TaskStatistics;

constexpr std::string_view kSecondsUnit = "seconds";
constexpr std::string_view kRatioUnit = "ratio";
constexpr std::string_view kBytesUnit = "bytes";
constexpr std::string_view kSd = "sd";
constexpr std::string_view kDs = "ds";

/// A task with what all its samples need.
struct Row {
  std::string id;  ///< value of the label "task"
  const TaskStatistics* task = nullptr;
  TaskMeasures measures;
};

std::vector<Row> Rows(const Snapshot& snapshot) {
  std::vector<Row> rows;
  rows.reserve(snapshot.tasks.size());
  for (const auto& [id, task] : snapshot.tasks) {
    rows.push_back({std::to_string(id), &task, MeasuresOf(task)});
  }
  return rows;
}

template <typename Number>
std::optional<double> Double(const std::optional<Number>& number) {
  return number ? std::optional<double>(static_cast<double>(*number)) : std::nullopt;
}

void WriteGauge(MetricWriter* out, std::string_view name, std::string_view unit,
                std::string_view help, const std::optional<double>& value) {
  out->Family(name, MetricType::kGauge, unit, help);
  out->Sample({}, value);
}

client::TaskPlan PlanOf(const Snapshot& snapshot, std::int32_t id) {
  const auto plan = snapshot.plans.find(id);
  return plan == snapshot.plans.end() ? client::TaskPlan{} : plan->second;
}

void WriteInfo(MetricWriter* out, const Snapshot& snapshot, const std::vector<Row>& rows) {
  out->Family("ipsla_task_info", MetricType::kInfo, "",
              "What a task is; 1. dscp is known with --tasks only.");
  for (const Row& row : rows) {
    const TaskStatistics& task = *row.task;
    const std::string type = task.type == SlaTestType::kNone ? "" : TestTypeToString(task.type);
    const client::TaskPlan plan = PlanOf(snapshot, task.id);
    out->Sample({{"task", row.id},
                 {"type", type},
                 {"vrf", task.vrf},
                 {"source", task.src_address},
                 {"destination", task.dst_address},
                 {"dscp", plan.dscp ? std::to_string(*plan.dscp) : ""}},
                1);
  }
  out->Family("ipsla_task_period_seconds", MetricType::kGauge, kSecondsUnit,
              "Configured time from one run's start to the next; with --tasks only.");
  for (const Row& row : rows) {
    if (const std::int64_t period = PlanOf(snapshot, row.task->id).period_s; period > 0) {
      out->Sample({{"task", row.id}}, static_cast<double>(period));
    }
  }
}

void WriteRuns(MetricWriter* out, const std::vector<Row>& rows) {
  out->Family("ipsla_last_run_success", MetricType::kGauge, "",
              "1 when the last run succeeded, 0 when it failed.");
  for (const Row& row : rows) {
    out->Sample({{"task", row.id}}, row.task->Failed() ? 0 : 1);
  }
  out->Family("ipsla_last_run_timestamp_seconds", MetricType::kGauge, kSecondsUnit,
              "When the last run ended, since the epoch.");
  for (const Row& row : rows) {
    out->Sample({{"task", row.id}}, static_cast<double>(row.task->finish_time));
  }
  out->Family("ipsla_runs_total", MetricType::kCounter, "",
              "Runs since the task was started, by result.");
  for (const Row& row : rows) {
    out->Sample({{"task", row.id}, {"result", "successful"}},
                static_cast<double>(row.task->successful_count));
    out->Sample({{"task", row.id}, {"result", "failed"}},
                static_cast<double>(row.task->failed_count));
  }
}

using RowValue = std::function<Value(const TaskMeasures&)>;

void WriteValue(MetricWriter* out, const std::vector<Row>& rows, std::string_view name,
                std::string_view help, const RowValue& value) {
  out->Family(name, MetricType::kGauge, kSecondsUnit, help);
  for (const Row& row : rows) {
    out->Sample({{"task", row.id}}, value(row.measures));
  }
}

void WriteDirections(MetricWriter* out, const std::vector<Row>& rows, std::string_view name,
                     std::string_view help, const RowValue& sd, const RowValue& ds) {
  out->Family(name, MetricType::kGauge, kSecondsUnit, help);
  for (const Row& row : rows) {
    out->Sample({{"task", row.id}, {"direction", kSd}}, sd(row.measures));
    out->Sample({{"task", row.id}, {"direction", kDs}}, ds(row.measures));
  }
}

void WriteTimes(MetricWriter* out, const std::vector<Row>& rows) {
  using M = TaskMeasures;
  WriteValue(out, rows, "ipsla_rtt_min_seconds", "Smallest round-trip time of the last run.",
             [](const M& m) { return m.rtt.min; });
  WriteValue(out, rows, "ipsla_rtt_mean_seconds", "Mean round-trip time of the last run.",
             [](const M& m) { return m.rtt.mean; });
  WriteValue(out, rows, "ipsla_rtt_max_seconds", "Largest round-trip time of the last run.",
             [](const M& m) { return m.rtt.max; });
  WriteDirections(
      out, rows, "ipsla_one_way_delay_min_seconds", "Smallest one-way delay of the last run.",
      [](const M& m) { return m.delay_sd.min; }, [](const M& m) { return m.delay_ds.min; });
  WriteDirections(
      out, rows, "ipsla_one_way_delay_mean_seconds", "Mean one-way delay of the last run.",
      [](const M& m) { return m.delay_sd.mean; }, [](const M& m) { return m.delay_ds.mean; });
  WriteDirections(
      out, rows, "ipsla_one_way_delay_max_seconds", "Largest one-way delay of the last run.",
      [](const M& m) { return m.delay_sd.max; }, [](const M& m) { return m.delay_ds.max; });
  WriteDirections(
      out, rows, "ipsla_jitter_stddev_seconds",
      "Standard deviation of the one-way delay of the last run.",
      [](const M& m) { return m.jitter_sd; }, [](const M& m) { return m.jitter_ds; });
}

void WritePackets(MetricWriter* out, const std::vector<Row>& rows) {
  out->Family("ipsla_packet_loss_ratio", MetricType::kGauge, kRatioUnit,
              "Lost probes of the last run, 0 to 1.");
  for (const Row& row : rows) {
    out->Sample({{"task", row.id}, {"direction", "round_trip"}}, row.measures.loss);
    out->Sample({{"task", row.id}, {"direction", kSd}}, row.measures.loss_sd);
    out->Sample({{"task", row.id}, {"direction", kDs}}, row.measures.loss_ds);
  }
  out->Family("ipsla_packets", MetricType::kGauge, "",
              "Probes of the last run by what became of them.");
  for (const Row& row : rows) {
    if (!row.measures.packets) {
      continue;
    }
    const PacketMeasures& packets = *row.measures.packets;
    const auto sample = [out, &row](std::string_view outcome, const std::optional<double>& value) {
      out->Sample({{"task", row.id}, {"outcome", outcome}}, value);
    };
    sample("sent", static_cast<double>(packets.sent));
    sample("received", static_cast<double>(packets.received));
    sample("late", Double(packets.late));
    sample("skipped", Double(packets.skipped));
    sample("duplicate", Double(packets.duplicate));
  }
}

void WriteClock(MetricWriter* out, const client::ClockState& clock) {
  WriteGauge(
      out, "ipsla_clock_synchronized", "",
      "1 when the kernel calls this machine's clock synchronised, 0 when it does not.",
      clock.synchronised ? std::optional<double>(*clock.synchronised ? 1 : 0) : std::nullopt);
  WriteGauge(out, "ipsla_clock_error_seconds", kSecondsUnit,
             "Estimated error of this machine's synchronised clock.",
             clock.estimated_error_ms
                 ? std::optional<double>(*clock.estimated_error_ms / kMillisecondsPerSecond)
                 : std::nullopt);
}

void WriteSelf(MetricWriter* out, const Snapshot& snapshot, const SelfInfo& self) {
  WriteGauge(out, "ipsla_scrape_duration_seconds", kSecondsUnit,
             "How long the daemon took to answer.", snapshot.duration.count());
  WriteGauge(out, "ipsla_history_bytes", kBytesUnit, "Memory of the results kept for the page.",
             static_cast<double>(self.history.bytes));
  WriteGauge(out, "ipsla_history_points", "", "Results kept for the page.",
             static_cast<double>(self.history.points));
  out->Family("ipsla_history_missed_runs_total", MetricType::kCounter, "",
              "Runs that ended unseen between two questions to the daemon.");
  out->Sample({}, static_cast<double>(self.history.missed_runs));
  out->Family("ipsla_build_info", MetricType::kInfo, "", "Version of the exporter; 1.");
  out->Sample({{"version", IPSLA_VERSION}}, 1);
}

void WriteProcess(MetricWriter* out, const ProcessInfo& process) {
  out->Family("process_cpu_seconds_total", MetricType::kCounter, kSecondsUnit,
              "User and system time of the exporter.");
  out->Sample({}, process.cpu_seconds);
  WriteGauge(out, "process_resident_memory_bytes", kBytesUnit, "Memory of the exporter.",
             process.resident_bytes);
  WriteGauge(out, "process_virtual_memory_bytes", kBytesUnit, "Address space of the exporter.",
             process.virtual_bytes);
  WriteGauge(out, "process_open_fds", "", "Open descriptors of the exporter.", process.open_fds);
  WriteGauge(out, "process_max_fds", "", "Largest number of open descriptors.", process.max_fds);
  WriteGauge(out, "process_start_time_seconds", kSecondsUnit,
             "When the exporter was started, since the epoch.", process.start_time);
}

}  // namespace

std::string MetricsText(const Snapshot& snapshot, const SelfInfo& self, MetricFormat format) {
  MetricWriter out(format);
  WriteGauge(&out, "ipsla_up", "", "1 when the daemon answered this scrape, 0 when it did not.",
             snapshot.up ? 1 : 0);
  const std::vector<Row> rows = Rows(snapshot);
  WriteInfo(&out, snapshot, rows);
  WriteRuns(&out, rows);
  WriteTimes(&out, rows);
  WritePackets(&out, rows);
  WriteClock(&out, snapshot.clock);
  WriteSelf(&out, snapshot, self);
  WriteProcess(&out, self.process);
  return out.Finish();
}

}  // namespace ipsla::exporter
