#include <cinttypes>
#include <cstdlib>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

#include "ctl/display_text.h"
#include "ctl/task_warnings.h"
#include "env/time_values.h"
#include "sender/schedule.h"

namespace ipsla::ctl {
namespace {

constexpr const char* kStartKey = "scheduler.Start-time";
constexpr const char* kLifeKey = "scheduler.life-time";
/// Waits are counted in unsigned 32-bit milliseconds: what is negative or longer comes out as
/// something else.
constexpr std::int64_t kLongestWaitMs = std::int64_t{1} << 32;
constexpr std::int64_t kNanosecondsPerMs = 1000000;
/// The life of a task that is parked on purpose.
constexpr const char* kParked = "-1";

/// A start as strptime(3) takes it, in the daemon's order of forms.
struct ReadStart {
  std::string rest;         ///< what follows it
  std::string other_day{};  ///< the day that a day which is not in the calendar is taken for
};

std::optional<ReadStart> ReadStartText(const std::string& text, const timespec& now) {
  tm today{};
  localtime_r(&now.tv_sec, &today);
  for (const char* format : {"%H:%M:%S", "%B %d %H:%M:%S", "%B %d"}) {
    tm start = today;
    const char* rest = strptime(text.c_str(), format, &start);
    if (rest == nullptr) {
      continue;
    }
    ReadStart read{.rest = rest};
    tm calendar = start;
    calendar.tm_isdst = -1;
    if (mktime(&calendar) != -1 && calendar.tm_mon != start.tm_mon) {
      char day[32];
      if (strftime(day, sizeof day, "%B %d", &calendar) > 0) {
        read.other_day = day;
      }
    }
    return read;
  }
  return std::nullopt;
}

/// Whether a start that can be read is written as the manual says: strptime(3) also takes it with
/// blanks in other places, or with none.
bool IsUsualForm(const std::string& text) {
  static const std::regex usual(
      R"(([0-9]{1,2}:[0-9]{1,2}:[0-9]{1,2}|[A-Za-z]+ +[0-9]{1,2}( +[0-9]{1,2}:[0-9]{1,2}:[0-9]{1,2})?))");
  return std::regex_match(text, usual);
}

/// The text's form, whenever it is.
void InspectStartForm(const std::string& text, const timespec& now, TaskRemarks* remarks) {
  const std::optional<ReadStart> read = ReadStartText(text, now);
  if (!read) {
    return;
  }
  if (!read->rest.empty()) {
    remarks->Warn(kStartKey, fmt::format("has a tail that is not read: \"{}\"", read->rest));
  } else if (!IsUsualForm(text)) {
    remarks->Warn(kStartKey,
                  R"(is not written like "12:30:00", "March 05" or "March 05 12:30:00")");
  }
  if (!read->other_day.empty()) {
    remarks->Warn(kStartKey, "is no day of this year: it is taken for " + read->other_day);
  }
}

void InspectStart(const SlaSchedulerConfig& scheduler, const timespec& now, TaskRemarks* remarks) {
  if (scheduler.start_time == "now") {
    return;
  }
  SlaSchedulerConfig start = scheduler;
  start.life_time = "0";  // so that the end of life is the start
  std::optional<FirstStart> first;
  try {
    first = ComputeFirstStart(start, now);
  } catch (const std::runtime_error&) {
    remarks->Fatal(kStartKey,
                   "cannot be read as a time, which ends the daemon when it creates the test");
    return;
  }
  InspectStartForm(scheduler.start_time, now, remarks);
  const std::int64_t wait_ms = (first->end_of_life - ToNanoseconds(now)) / kNanosecondsPerMs;
  if (wait_ms <= -1000) {
    remarks->Warn(kStartKey,
                  fmt::format("has passed {} ago: the first run would start in {}",
                              AgeText(-wait_ms / 1000), AgeText(first->delay_ms / 1000)));
  } else if (wait_ms >= kLongestWaitMs) {
    remarks->Warn(kStartKey,
                  fmt::format("is {} ahead, longer than the daemon can wait: the first run would "
                              "start in {}",
                              AgeText(wait_ms / 1000), AgeText(first->delay_ms / 1000)));
  }
}

/// A life in seconds, of which the daemon reads only what comes before `tail`.
void InspectLifeTail(const std::string& life, TaskRemarks* remarks) {
  constexpr int kDecimal = 10;
  char* tail = nullptr;
  const std::intmax_t seconds = std::strtoimax(life.c_str(), &tail, kDecimal);
  if (*tail != '\0' && seconds > 0) {
    remarks->Warn(kLifeKey, fmt::format("is {} second{}: \"{}\" is not read", seconds,
                                        seconds == 1 ? "" : "s", std::string(tail)));
  }
}

void InspectLife(const SlaSchedulerConfig& scheduler, const timespec& now, TaskRemarks* remarks) {
  const std::string& life = scheduler.life_time;
  if (life == "forever" || life == kParked) {
    return;
  }
  SlaSchedulerConfig at_once = scheduler;
  at_once.start_time = "now";
  std::optional<FirstStart> first;
  try {
    first = ComputeFirstStart(at_once, now);
  } catch (const std::runtime_error&) {
    remarks->Fatal(kLifeKey,
                   "is longer than can be counted, which ends the daemon when it creates the test");
    return;
  }
  if (!first) {
    remarks->Warn(kLifeKey, "is negative: the test never starts; \"-1\" says so on purpose");
    return;
  }
  if (first->end_of_life <= ToNanoseconds(now)) {
    remarks->Warn(kLifeKey,
                  "leaves no time to live (text that is no number counts as 0): the test never "
                  "runs");
    return;
  }
  if (first->end_of_life == kForever) {
    remarks->Warn(kLifeKey, "is longer than the clock counts: it is taken for \"forever\"");
  }
  InspectLifeTail(life, remarks);
}

}  // namespace

void InspectSchedule(const SlaSchedulerConfig& scheduler, const timespec& now,
                     TaskRemarks* remarks) {
  InspectStart(scheduler, now, remarks);
  InspectLife(scheduler, now, remarks);
}

}  // namespace ipsla::ctl
