// The time in front of every line of a log file.

#ifndef IPSLA_LOG_LINE_TIME_H_
#define IPSLA_LOG_LINE_TIME_H_

#include <array>
#include <ctime>

#include "log/line_queue.h"

namespace ipsla {

/// Threads: one at a time.
class LineTime {
 public:
  /// Puts "dd-mm-yyyy hh:mm:ss: " of `now`, in local time, before the text of `line`. The text is
  /// made anew once a second, and the machine's time zone looked up with it, which may have
  /// changed.
  void PutBefore(const LogLine& line, std::time_t now);

 private:
  // Makes the text of the second `now`.
  void Make(std::time_t now);

  // The second whose text is here; -1: none yet.
  std::time_t second_ = -1;
  std::array<char, LogLine::kTimeBytes + 1> text_{};
};

}  // namespace ipsla

#endif  // IPSLA_LOG_LINE_TIME_H_
