// What the exporter answers to a request.

#ifndef IPSLA_TOOLS_EXPORTER_ROUTES_H_
#define IPSLA_TOOLS_EXPORTER_ROUTES_H_

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "exporter/collector.h"
#include "exporter/metric_writer.h"

namespace ipsla::exporter {

/// A request as far as it matters. The method is GET or HEAD, which are answered alike.
struct WebRequest {
  std::string target;         ///< path, and a query behind "?"
  std::string accept;         ///< header; empty without
  std::string if_none_match;  ///< header; empty without
};

/// An answer. `body` is owned by `owner`, or is static where that is null.
struct WebReply {
  unsigned status = 200;
  std::string_view type = "text/plain; charset=utf-8";
  std::string_view etag{};  ///< empty: never to be kept by anybody
  std::string_view body{};
  std::shared_ptr<const std::string> owner{};
};

/// Which format an Accept header asks for: OpenMetrics where it is named and not refused.
[[nodiscard]] MetricFormat FormatFor(std::string_view accept);

/// The value of `name` in the query of a target; nothing when it is absent or no number from 0 to
/// 2^53.
[[nodiscard]] std::optional<std::int64_t> QueryNumber(std::string_view target,
                                                      std::string_view name);

/// Threads: any, and the collector's.
class Routes {
 public:
  using Callback = std::function<void(WebReply)>;

  /// The collector must outlive it, and every pending answer.
  explicit Routes(Collector* collector) : collector_(collector) {}

  /// Calls `callback` exactly once, possibly on the collector's thread.
  void Answer(const WebRequest& request, Callback callback) const;

 private:
  // One for each resource.
  void AnswerMetrics(const WebRequest& request, Callback callback) const;
  void AnswerTasks(const WebRequest& request, Callback callback) const;
  [[nodiscard]] WebReply History(const WebRequest& request) const;

  Collector* const collector_;
};

/// An error as plain text.
[[nodiscard]] WebReply ErrorReply(unsigned status, std::string_view text);

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_ROUTES_H_
