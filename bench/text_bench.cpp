// What the daemon does with texts and digests: a tasks file read, an API reply made, a control
// message signed.

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <cjson/cJSON.h>

#include "api/statistics_json.h"
#include "config/json_text.h"
#include "config/sender_help_funcs.h"
#include "udp/digest.h"

namespace {

constexpr std::uint16_t kTasks = 1000;

std::string TasksText() {
  std::string text = R"({"cpus": [0], "IP-SLA-tasks": [)";
  for (int id = 1; id <= kTasks; ++id) {
    text += (id == 1 ? "" : ",") + std::string(R"({"sla-id": )") + std::to_string(id) +
            R"(, "schedule": true, "num-rep-hist": 10,
      "scheduler": {"time": 60, "Start-time": "now", "life-time": "forever"},
      "control-phase": {"timeout": 1000, "retry": 5, "src-address": "127.0.0.1",
        "src-port": "any", "dst-address": "127.0.0.1", "dst-port": 2000,
        "authentication": {"mode": "no"}},
      "sla-type": "icmp-echo",
      "icmp-echo": {"src-address": "127.0.0.1", "src-port": "any", "dst-address": "127.0.0.1",
        "dst-port": 0, "num-packets": 10, "packet-size": 84, "interval": 20, "timeout": 500,
        "ttl": 64, "dscp": 0, "cos": 0}})";
  }
  return text + "]}";
}

/// A file that is gone at the end.
class TasksFile {
 public:
  TasksFile() {
    const int fd = mkstemp(name_.data());
    if (fd < 0) throw std::runtime_error("mkstemp");
    std::ofstream(name_) << TasksText();
    static_cast<void>(std::fclose(fdopen(fd, "r")));
  }
  ~TasksFile() { static_cast<void>(std::remove(name_.c_str())); }
  TasksFile(const TasksFile&) = delete;
  TasksFile& operator=(const TasksFile&) = delete;

  [[nodiscard]] const std::string& Name() const { return name_; }

 private:
  std::string name_ = "/tmp/ipsla-bench-XXXXXX";
};

void TasksFileOfAThousand(benchmark::State& state) {
  const TasksFile file;
  for (auto _ : state) {
    ipsla::SlaTaskMap tasks;
    std::vector<std::uint8_t> cpus;
    std::string fault;
    if (ipsla::ParseTaskConfigs(file.Name(), &tasks, {}, &cpus, &fault) != 0 ||
        tasks.size() != kTasks) {
      state.SkipWithError("the tasks file was not taken");
      return;
    }
  }
}
BENCHMARK(TasksFileOfAThousand)->Unit(benchmark::kMicrosecond);

void StatisticsOfAThousand(benchmark::State& state) {
  ipsla::SlaTaskMap tasks;
  ipsla::StatisticsStore statistics;
  ipsla::StatisticsRequest request;
  for (std::uint16_t id = 1; id <= kTasks; ++id) {
    ipsla::SlaTaskConfig& task = tasks[id];
    task.sla_id = id;
    task.sla_type = ipsla::SlaTestType::kUdpJitter;
    ipsla::SlaTaskStatistics& of_task = statistics.tasks[id];
    of_task.successful_count = 1;
    of_task.last.status = ipsla::RunResult::kSuccessful;
    request[id] = ipsla::MetricGroupNames();
  }
  for (auto _ : state) {
    const ipsla::JsonDocument reply(cJSON_CreateObject());
    static_cast<void>(ipsla::SerializeTasksMetrics(reply.get(), request, tasks, statistics));
    const ipsla::JsonText text(cJSON_PrintUnformatted(reply.get()));
    benchmark::DoNotOptimize(text.get());
  }
}
BENCHMARK(StatisticsOfAThousand)->Unit(benchmark::kMicrosecond);

void ControlMessageDigest(benchmark::State& state) {
  const std::array<std::uint8_t, ipsla::kControlMessageSize> message{};
  const auto algorithm = static_cast<ipsla::SlaAuthAlgorithm>(state.range(0));
  for (auto _ : state) {
    auto digest = ipsla::MessageDigest(algorithm, std::span(message), "a key of usual length");
    if (!digest) {
      state.SkipWithError("no digest");
      return;
    }
    benchmark::DoNotOptimize(digest);
  }
}
BENCHMARK(ControlMessageDigest)
    ->ArgName("algorithm")
    ->Arg(static_cast<int>(ipsla::SlaAuthAlgorithm::kSha256))
    ->Arg(static_cast<int>(ipsla::SlaAuthAlgorithm::kHmacSha256));

}  // namespace
