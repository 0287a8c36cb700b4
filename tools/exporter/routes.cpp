#include "exporter/routes.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "exporter/metrics_text.h"
#include "exporter/page_files.h"

namespace ipsla::exporter {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// An answer this young is given again, so that nobody can make the daemon answer without a pause.
constexpr milliseconds kFreshEnough{1000};
constexpr std::int64_t kLongestAge = 86400;
constexpr std::int64_t kMaxNumber = 1LL << 53;
constexpr std::int64_t kMaxTask = 65535;

constexpr std::string_view kJson = "application/json; charset=utf-8";
constexpr std::string_view kPrometheus = "text/plain; version=0.0.4; charset=utf-8";
constexpr std::string_view kOpenMetrics =
    "application/openmetrics-text; version=1.0.0; charset=utf-8";

WebReply OwningReply(std::string body, std::string_view type) {
  WebReply reply{.type = type, .owner = std::make_shared<const std::string>(std::move(body))};
  reply.body = *reply.owner;
  return reply;
}

std::string_view PathOf(std::string_view target) {
  return target.substr(0, target.find('?'));
}

/// Removes and returns what stands before the next `separator`, or all.
std::string_view Cut(std::string_view* text, char separator) {
  const std::size_t end = text->find(separator);
  const std::string_view head = text->substr(0, end);
  text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
  return head;
}

std::optional<std::int64_t> ParseNumber(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size() || number < 0 ||
      number > kMaxNumber) {
    return std::nullopt;
  }
  return number;
}

bool RefusesRange(std::string_view parameters) {
  while (!parameters.empty()) {
    std::string_view parameter = Cut(&parameters, ';');
    parameter.remove_prefix(std::min(parameter.find_first_not_of(" \t"), parameter.size()));
    if (parameter.starts_with("q=0") && parameter.find_first_of("123456789") == std::string::npos) {
      return true;
    }
  }
  return false;
}

WebReply FileReply(const PageFile& file, const WebRequest& request) {
  WebReply reply{.type = file.type, .etag = file.etag, .body = file.body};
  if (request.if_none_match == file.etag) {
    reply.status = 304;
    reply.body = {};
  }
  return reply;
}

WebReply NotFound() {
  return ErrorReply(404, "Not found. The page is at /, metrics at /metrics.\n");
}

WebReply PageReply(const WebRequest& request) {
  const std::string_view path = PathOf(request.target);
  for (const PageFile& file : PageFiles()) {
    if (file.path == path) {
      return FileReply(file, request);
    }
  }
  return NotFound();
}

}  // namespace

WebReply ErrorReply(unsigned status, std::string_view text) {
  return {.status = status, .body = text};
}

MetricFormat FormatFor(std::string_view accept) {
  while (!accept.empty()) {
    std::string_view range = Cut(&accept, ',');
    range.remove_prefix(std::min(range.find_first_not_of(" \t"), range.size()));
    const std::string_view type = Cut(&range, ';');
    if (type.substr(0, type.find_last_not_of(" \t") + 1) == "application/openmetrics-text" &&
        !RefusesRange(range)) {
      return MetricFormat::kOpenMetrics;
    }
  }
  return MetricFormat::kPrometheus;
}

std::optional<std::int64_t> QueryNumber(std::string_view target, std::string_view name) {
  const std::size_t mark = target.find('?');
  std::string_view query = mark == std::string_view::npos ? "" : target.substr(mark + 1);
  while (!query.empty()) {
    std::string_view value = Cut(&query, '&');
    if (Cut(&value, '=') == name) {
      return ParseNumber(value);
    }
  }
  return std::nullopt;
}

void Routes::AnswerMetrics(const WebRequest& request, Callback callback) const {
  const MetricFormat format = FormatFor(request.accept);
  collector_->Ask(kFreshEnough, [collector = collector_, format,
                                 callback = std::move(callback)](const SnapshotPtr& snapshot) {
    const SelfInfo self{ReadProcessInfo(), collector->StateOfHistory()};
    callback(OwningReply(MetricsText(*snapshot, self, format),
                         format == MetricFormat::kOpenMetrics ? kOpenMetrics : kPrometheus));
  });
}

void Routes::AnswerTasks(const WebRequest& request, Callback callback) const {
  const std::int64_t age =
      std::min(QueryNumber(request.target, "max-age").value_or(0), kLongestAge);
  const milliseconds max_age = std::max<milliseconds>(kFreshEnough, seconds(age));
  collector_->Ask(max_age, [callback = std::move(callback)](const SnapshotPtr& snapshot) {
    WebReply reply{.status = snapshot->up ? 200U : 503U, .type = kJson};
    reply.owner = snapshot->document;
    reply.body = *reply.owner;
    callback(std::move(reply));
  });
}

WebReply Routes::History(const WebRequest& request) const {
  const auto task = QueryNumber(request.target, "task");
  if (!task || *task > kMaxTask) {
    return ErrorReply(400, "Say which task: /api/history?task=ID\n");
  }
  const std::int64_t since = QueryNumber(request.target, "since").value_or(0);
  return OwningReply(collector_->HistoryOf(static_cast<std::int32_t>(*task), since), kJson);
}

void Routes::Answer(const WebRequest& request, Callback callback) const {
  const std::string_view path = PathOf(request.target);
  if (path == "/metrics") {
    AnswerMetrics(request, std::move(callback));
  } else if (path == "/api/tasks") {
    AnswerTasks(request, std::move(callback));
  } else if (path == "/api/history") {
    callback(History(request));
  } else if (path == "/-/healthy") {
    callback({.body = "The exporter is healthy.\n"});
  } else {
    callback(PageReply(request));
  }
}

}  // namespace ipsla::exporter
