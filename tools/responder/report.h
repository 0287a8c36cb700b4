// What the responder prints: lines about sessions and requests at a bounded rate, others always.

#ifndef IPSLA_TOOLS_RESPONDER_REPORT_H_
#define IPSLA_TOOLS_RESPONDER_REPORT_H_

#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <utility>

#include "responder/token_bucket.h"

namespace ipsla::responder {

/// Takes one line without its break. May throw std::bad_alloc only.
using Print = std::function<void(const std::string& line)>;

/// Lines about sessions and requests: whoever may send datagrams can cause them.
inline constexpr Rate kSessionLines = {.burst = 500, .per_second = 50};

/// Single-threaded. Nothing here throws: a line for which there is no memory is left out.
class Report {
 public:
  /// `verbose`: print what is said by Detail too.
  Report(Print print, bool verbose) : print_(std::move(print)), verbose_(verbose) {}

  /// A line that is always printed.
  void Line(const std::string& line) noexcept;

  /// A line about a session, made by `text` if it is printed at all. `now`: the steady clock.
  template <class Text>
  void Session(std::int64_t now, Text text) noexcept {
    if (!HasTurn(now)) return;
    try {
      print_(text());
    } catch (const std::bad_alloc&) {
      ++left_out_;
    }
  }

  /// The same, only with `verbose`.
  template <class Text>
  void Detail(std::int64_t now, Text text) noexcept {
    if (verbose_) Session(now, std::move(text));
  }

  /// How many lines were left out up to now.
  [[nodiscard]] std::uint64_t LeftOut() const { return left_out_; }

 private:
  bool HasTurn(std::int64_t now) noexcept;

  // Constant.
  const Print print_;
  const bool verbose_;
  // Limits the lines about strangers.
  TokenBucket bucket_;
  std::uint64_t left_out_ = 0;
  std::uint64_t told_ = 0;  // of these, as the output says
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_REPORT_H_
