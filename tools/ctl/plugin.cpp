#include "ctl/plugin.h"

#include <algorithm>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "ctl/display_text.h"
#include "ctl/json_out.h"

namespace ipsla::ctl {
namespace {

using client::TaskStatistics;
using client::Value;

constexpr int kDecimals = 3;

Value Larger(Value one, Value other) {
  if (!one || !other) {
    return one ? one : other;
  }
  return std::max(*one, *other);
}

/// The value that a threshold of this name is about.
Value Measured(const std::string& name, const TaskFigures& figures, double age) {
  if (name == "rtt") {
    return figures.rtt;
  }
  if (name == "latency") {
    return Larger(figures.latency_sd, figures.latency_ds);
  }
  if (name == "jitter") {
    return Larger(figures.jitter_sd, figures.jitter_ds);
  }
  if (name == "loss") {
    const Value one_way = Larger(figures.loss_sd, figures.loss_ds);
    return one_way ? one_way : figures.loss;
  }
  return age;
}

const char* UnitOf(const std::string& name) {
  if (name == "loss") {
    return "%";
  }
  return name == "age" ? " s" : " ms";
}

std::string LimitText(const Thresholds& thresholds, const std::string& name) {
  const auto limit = thresholds.find(name);
  return limit == thresholds.end() ? "" : NumberText(limit->second, kDecimals);
}

/// Collects what is worth reporting.
class Judgement {
 public:
  Judgement(const Thresholds& warning, const Thresholds& critical)
      : warning_(warning), critical_(critical) {}

  void Check(const std::string& name, const Value& value) {
    const auto limit = critical_.find(name);
    if (limit != critical_.end() && value && *value > limit->second) {
      Exceeded(PluginState::kCritical, name, *value, limit->second);
      return;
    }
    const auto warning_limit = warning_.find(name);
    if (warning_limit != warning_.end() && value && *value > warning_limit->second) {
      Exceeded(PluginState::kWarning, name, *value, warning_limit->second);
      return;
    }
    if (!value && (limit != critical_.end() || warning_limit != warning_.end())) {
      missing_.push_back(fmt::format("no {} value", name));
    }
  }

  void Add(const char* label, const std::string& name, const Value& value, const char* unit,
           const char* range) {
    if (value) {
      performance_.push_back(
          {label, *value, unit,
           LimitText(warning_, name) + ";" + LimitText(critical_, name) + ";" + range});
    }
  }

  PluginResult Finish(const std::string& subject, const std::string& figures) {
    PluginResult result{state_, subject + figures, std::move(performance_)};
    if (state_ == PluginState::kOk && !missing_.empty()) {
      result.state = PluginState::kUnknown;
    }
    for (const auto& remarks : {exceeded_, missing_}) {
      for (const std::string& remark : remarks) {
        result.text += (result.text == subject ? "" : ", ") + remark;
      }
    }
    return result;
  }

 private:
  void Exceeded(PluginState state, const std::string& name, double value, double limit) {
    state_ = std::max(state_, state);
    const char* unit = UnitOf(name);
    exceeded_.push_back(fmt::format("{} {}{} is above {}{}", name, NumberText(value, kDecimals),
                                    unit, NumberText(limit, kDecimals), unit));
  }

  const Thresholds& warning_;
  const Thresholds& critical_;
  PluginState state_ = PluginState::kOk;
  std::vector<std::string> exceeded_, missing_;
  std::vector<PerformanceValue> performance_;
};

void AddPerformance(const TaskFigures& figures, double age, Judgement* judgement) {
  judgement->Add("rtt", "rtt", figures.rtt, "ms", ";");
  judgement->Add("latency_sd", "latency", figures.latency_sd, "ms", ";");
  judgement->Add("latency_ds", "latency", figures.latency_ds, "ms", ";");
  judgement->Add("jitter_sd", "jitter", figures.jitter_sd, "ms", ";");
  judgement->Add("jitter_ds", "jitter", figures.jitter_ds, "ms", ";");
  if (figures.loss_sd || figures.loss_ds) {
    judgement->Add("loss_sd", "loss", figures.loss_sd, "%", "0;100");
    judgement->Add("loss_ds", "loss", figures.loss_ds, "%", "0;100");
  } else {
    judgement->Add("loss", "loss", figures.loss, "%", "0;100");
  }
  judgement->Add("age", "age", age, "s", ";");
}

std::string FigureText(const TaskFigures& figures) {
  std::vector<std::string> parts;
  if (figures.rtt) {
    parts.push_back(fmt::format("rtt {} ms", NumberText(figures.rtt, kDecimals)));
  }
  if (figures.loss_sd || figures.loss_ds) {
    const auto percent = [](const Value& value) {
      return value ? NumberText(value, 1) + "%" : kNoValue;
    };
    parts.push_back(
        fmt::format("loss sd {} ds {}", percent(figures.loss_sd), percent(figures.loss_ds)));
  } else if (figures.loss) {
    parts.push_back(fmt::format("loss {}%", NumberText(figures.loss, 1)));
  }
  return fmt::format("{}", fmt::join(parts, ", "));
}

}  // namespace

const char* PluginStateText(PluginState state) {
  switch (state) {
    case PluginState::kOk:
      return "OK";
    case PluginState::kWarning:
      return "WARNING";
    case PluginState::kCritical:
      return "CRITICAL";
    case PluginState::kUnknown:
      break;
  }
  return "UNKNOWN";
}

PluginResult JudgeTask(const TaskView& task, const Thresholds& warning, const Thresholds& critical,
                       std::int64_t now) {
  if (!task.last) {
    const char* text = task.scheduled ? "task {} has no result yet" : "task {} is not scheduled";
    return {PluginState::kUnknown, fmt::format(fmt::runtime(text), task.id), {}};
  }
  const TaskStatistics& last = *task.last;
  const std::string type = last.type == SlaTestType::kNone ? "" : " " + TypeText(last.type);
  const std::string subject = fmt::format("task {}{}: ", task.id, type);
  const auto age = static_cast<double>(std::max<std::int64_t>(now - last.finish_time, 0));
  Judgement judgement(warning, critical);
  const TaskFigures figures = Figures(last);
  AddPerformance(figures, age, &judgement);
  if (last.Failed()) {
    PluginResult result = judgement.Finish(subject, client::ReasonOf(task));
    result.state = PluginState::kCritical;
    return result;
  }
  if (client::HasNoUsableReplies(last)) {
    judgement.Check("age", age);
    PluginResult result = judgement.Finish(subject, client::ReasonOf(task));
    result.state = result.state == PluginState::kOk ? PluginState::kUnknown : result.state;
    return result;
  }
  for (const std::string& name : ThresholdNames()) {
    judgement.Check(name, Measured(name, figures, age));
  }
  return judgement.Finish(subject, FigureText(figures));
}

std::string PluginLine(const PluginResult& result) {
  // A bar separates the text from the performance values, so the text has none.
  std::string text = Printable(result.text);
  std::replace(text.begin(), text.end(), '|', '/');
  std::string line = fmt::format("{} - {}", PluginStateText(result.state), text);
  const char* separator = " | ";
  for (const PerformanceValue& value : result.performance) {
    line += fmt::format("{}{}={}{};{}", separator, value.label, NumberText(value.value, kDecimals),
                        value.unit, value.limits);
    separator = " ";
  }
  return line;
}

std::string PluginJson(const PluginResult& result) {
  const JsonDocument document(cJSON_CreateObject());
  cJSON_AddStringToObject(document.get(), "state", PluginStateText(result.state));
  cJSON_AddStringToObject(document.get(), "text", result.text.c_str());
  cJSON* values = cJSON_AddObjectToObject(document.get(), "values");
  for (const PerformanceValue& value : result.performance) {
    cJSON_AddNumberToObject(values, value.label.c_str(), value.value);
  }
  return CompactJson(document.get());
}

}  // namespace ipsla::ctl
