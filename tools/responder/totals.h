// What a responder has done since it began, and how it says so.

#ifndef IPSLA_TOOLS_RESPONDER_TOTALS_H_
#define IPSLA_TOOLS_RESPONDER_TOTALS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "responder/request_check.h"
#include "responder/session.h"
#include "responder/session_table.h"

namespace ipsla::responder {

/// How long replies took, from the arrival of the probe to the return of the send call.
class ReplyTimes {
 public:
  /// Counts one reply. Negative times (the clock was set) count as zero.
  void Note(std::int64_t nanoseconds);

  /// "median at most 50, 99 % at most 200, longest 812", microseconds; "none" without replies.
  [[nodiscard]] std::string Describe() const;

 private:
  /// Upper bounds of the classes, microseconds; one more class has no bound.
  static constexpr std::array<std::int64_t, 12> kBounds = {5,   10,   20,   50,   100,   200,
                                                           500, 1000, 2000, 5000, 10000, 100000};

  // The bound below which `rank` replies are.
  [[nodiscard]] std::string AtMost(std::uint64_t rank) const;

  // Replies by bound, and all.
  std::array<std::uint64_t, kBounds.size() + 1> counts_{};
  std::uint64_t replies_ = 0;
  std::int64_t longest_ = 0;  // microseconds
};

/// Refused requests by the block of the answer that names the fault, and by status.
class RefusalCounts {
 public:
  void Note(const ControlPhaseMessage& answer);
  /// Answers of all kinds.
  [[nodiscard]] std::uint64_t Total() const { return total_; }
  /// One text for each reason there was: "authentication: authentication fail 3".
  [[nodiscard]] std::vector<std::string> Describe() const;

 private:
  static constexpr std::size_t kStatuses = 14;  // the known ones
  static constexpr std::size_t kBlocks = 3;     // header, authentication, measurement

  // By block and status.
  std::array<std::array<std::uint64_t, kStatuses>, kBlocks> counts_{};
  std::uint64_t total_ = 0;
};

/// Counters. Single-threaded.
struct Totals {
  // Sessions.
  std::uint64_t opened = 0;
  std::uint64_t answered_again = 0;  ///< requests that came once more while their session lasted
  std::uint64_t replaced = 0;        ///< by a new run of the same sender
  std::uint64_t ended = 0;
  std::uint64_t idle = 0;       ///< ended because no probe came
  std::uint64_t shortened = 0;  ///< asked for more than the longest duration

  // Probes; those of open sessions are added by DescribeTotals.
  SessionStatistics probes;
  std::uint64_t stray = 0;              ///< of no session
  std::uint64_t dropped_by_kernel = 0;  ///< because a socket's buffer was full
  ReplyTimes reply_times;

  // Requests.
  std::uint64_t requests = 0;
  std::uint64_t ignored = 0;  ///< never answered
  RefusalCounts refusals;
  std::uint64_t repeated = 0;         ///< refused: the nonce was known
  std::uint64_t full = 0;             ///< refused: too many sessions
  std::uint64_t full_for_source = 0;  ///< refused: too many of that source
  std::uint64_t held_back = 0;        ///< answers that the rate for their source did not allow
  std::uint64_t answers_unsent = 0;   ///< that the system did not take
  std::uint64_t out_of_memory = 0;    ///< datagrams given up for want of memory
};

/// The lines printed on SIGUSR1 and at the end, each beginning with "statistics: ".
[[nodiscard]] std::vector<std::string> DescribeTotals(const Totals& totals,
                                                      const SessionTable& sessions);

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_TOTALS_H_
