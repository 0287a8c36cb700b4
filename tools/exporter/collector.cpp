#include "exporter/collector.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <system_error>
#include <utility>

#include <cjson/cJSON.h>

#include "api/sender_api_message.h"
#include "client/task_document.h"
#include "exporter/history_json.h"

namespace ipsla::exporter {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr std::int64_t kKeepSeconds = 86400;

/// Questions of the collector's own: never rarer, so that the page's first look is not an old one.
constexpr seconds kLongestInterval{60};
/// A question a little more often than the fastest task runs, so that no run falls between two.
constexpr double kQuestionsPerRun = 1.25;
/// The daemon's API does nothing else while it answers, which takes it 1.25 ms per task. Own
/// questions take a twentieth of its time.
constexpr milliseconds kLeisurePerTask{25};

/// That the daemon does not answer is no answer to be content with for longer.
constexpr milliseconds kFailureAge{1000};

int MakeTimer() {
  const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  if (fd < 0) {
    throw std::system_error(errno, std::generic_category(), "timerfd_create");
  }
  return fd;
}

std::int64_t SecondsOf(system_clock::time_point time) {
  return duration_cast<seconds>(time.time_since_epoch()).count();
}

/// As `ip-sla-ctl show --json` prints it, for the same tasks, file and time.
std::string DocumentOf(const Snapshot& snapshot) {
  if (!snapshot.up) {
    const JsonDocument document(cJSON_CreateObject());
    cJSON_AddStringToObject(document.get(), "error", snapshot.error.c_str());
    return client::JsonLine(document.get());
  }
  std::vector<client::TaskView> views;
  views.reserve(snapshot.tasks.size());
  for (const auto& [id, task] : snapshot.tasks) {
    client::TaskView view{.id = id, .last = task};
    if (const auto plan = snapshot.plans.find(id); plan != snapshot.plans.end()) {
      view.plan = plan->second;
    }
    views.push_back(std::move(view));
  }
  const auto document = client::TasksDocument(
      views, {.now = SecondsOf(snapshot.answered_at), .clock = snapshot.clock});
  return client::JsonLine(document.get());
}

}  // namespace

Collector::Collector(CollectorOptions options)
    : options_(std::move(options)),
      alarm_fd_(MakeTimer()),
      tasks_file_(options_.tasks_file),
      history_(options_.history_bytes, kKeepSeconds),
      thread_([this] { Run(); }) {}

// The alarm is set with values that timerfd_settime(2) cannot refuse.
Collector::~Collector() {  // NOLINT(bugprone-exception-escape): see above
  {
    const MutexLock lock(mutex_);
    stopping_ = true;
    SetAlarm(std::chrono::nanoseconds(1));
  }
  wanted_.NotifyOne();
  thread_.join();
  close(alarm_fd_);
}

void Collector::SetAlarm(std::chrono::nanoseconds delay) const {
  const auto whole = duration_cast<seconds>(delay);
  itimerspec alarm{};
  alarm.it_value.tv_sec = whole.count();
  alarm.it_value.tv_nsec = (delay - whole).count();
  if (timerfd_settime(alarm_fd_, 0, &alarm, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "timerfd_settime");
  }
}

void Collector::Ask(milliseconds max_age, Callback callback) {
  SnapshotPtr young;
  {
    const MutexLock lock(mutex_);
    const auto allowed = latest_ && !latest_->up ? std::min(max_age, kFailureAge) : max_age;
    if (latest_ && steady_clock::now() - latest_->asked_at <= allowed) {
      young = latest_;
    } else {
      waiting_.push_back(std::move(callback));
    }
  }
  if (young) {
    callback(std::move(young));  // NOLINT(bugprone-use-after-move): moved on the other way only
  } else {
    wanted_.NotifyOne();
  }
}

Collector::Clock::time_point Collector::NextOwnQuestion() const {
  if (!latest_) {
    return Clock::now();
  }
  auto interval = options_.interval;
  if (const double period = history_.ShortestPeriod(); period > 0) {
    const milliseconds enough(
        static_cast<std::int64_t>(std::min(period, 1e6) * 1000 / kQuestionsPerRun));
    interval = std::clamp(enough, interval, std::max<milliseconds>(interval, kLongestInterval));
  }
  const milliseconds leisure = kLeisurePerTask * latest_->tasks.size();
  return latest_->asked_at + std::max(interval, leisure);
}

bool Collector::WaitUntilDue(MutexLock* held) {
  while (!stopping_ && waiting_.empty()) {
    const auto due = NextOwnQuestion();
    if (Clock::now() >= due) {
      break;
    }
    wanted_.WaitUntil(held, due);
  }
  return !stopping_;
}

SnapshotPtr Collector::Question() {
  auto snapshot = std::make_shared<Snapshot>();
  snapshot->asked_at = Clock::now();
  const client::SenderClient sender(
      {.port = options_.api_port, .timeout = options_.timeout, .interrupt_fd = alarm_fd_});
  try {
    snapshot->tasks = sender.ActiveStatistics(MetricGroupNames());
    snapshot->up = true;
  } catch (const client::ClientError& error) {
    const bool late = error.GetKind() == client::ClientError::Kind::kInterrupted;
    snapshot->error =
        late ? "no complete reply within " + std::to_string(options_.timeout.count()) + " ms"
             : error.what();
  } catch (const std::exception& error) {
    snapshot->error = error.what();
  }
  snapshot->duration = Clock::now() - snapshot->asked_at;
  snapshot->answered_at = system_clock::now();
  snapshot->clock = client::ReadClockState();
  snapshot->plans = tasks_file_.Plans();
  snapshot->document = std::make_shared<const std::string>(DocumentOf(*snapshot));
  return snapshot;
}

void Collector::Run() {
  MutexLock lock(mutex_);
  while (WaitUntilDue(&lock)) {
    SetAlarm(options_.timeout);
    lock.Unlock();
    SnapshotPtr snapshot = Question();
    lock.Lock();
    latest_ = snapshot;
    history_.Record(snapshot->tasks, SecondsOf(snapshot->answered_at));
    // Those who came meanwhile as well: what they get is younger than their question could wait.
    const std::vector<Callback> waiting = std::exchange(waiting_, {});
    lock.Unlock();
    for (const Callback& callback : waiting) {
      callback(snapshot);
    }
    snapshot.reset();
    lock.Lock();
  }
}

std::string Collector::HistoryOf(std::int32_t task, std::int64_t since) const {
  const MutexLock lock(mutex_);
  return HistoryJson(task, history_.Read(task, since, SecondsOf(system_clock::now())),
                     history_.Reasons());
}

HistoryState Collector::StateOfHistory() const {
  const MutexLock lock(mutex_);
  return history_.State();
}

}  // namespace ipsla::exporter
