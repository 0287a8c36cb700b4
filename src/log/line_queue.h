// Lines on their way from whoever logs to the thread that writes them.

#ifndef IPSLA_LOG_LINE_QUEUE_H_
#define IPSLA_LOG_LINE_QUEUE_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "log/priority_mutex.h"

namespace ipsla {

namespace log_internal {

/// Gives whole pages back to the kernel.
struct UnmapPages {
  std::size_t size = 0;
  void operator()(char* bytes) const;
};
using Pages = std::unique_ptr<char[], UnmapPages>;

}  // namespace log_internal

/// One line as it goes to the file of test `id`, newline included. Its first kTimeBytes are for the
/// time and the ": " behind it, which the writer puts there.
struct LogLine {
  static constexpr std::size_t kTimeBytes = 21;

  std::uint16_t id = 0;
  std::span<char> bytes;
};

/// First in, first out, in at most kMaxBytes of memory. What finds no room is dropped and counted
/// for its file, until half of the room is free again; then a line "N lines dropped" stands in
/// place of what is missing in each file.
///
/// Threads: Push, WaitUntilDone and Close on any; Take and Done on one. Push copies its text under
/// a lock that is never held for longer than that. It wakes the taking thread only when that one
/// has found nothing for kRest: in a steady flow of lines it wakes by itself and takes them in
/// batches.
class LineQueue {
 public:
  static constexpr std::size_t kMaxBytes = std::size_t{16} << 20U;
  static constexpr std::chrono::milliseconds kRest{20};

  /// Adds a line for the file of `id`. Dropped when there is no room or after Close().
  void Push(std::uint16_t id, std::string_view text) noexcept;

  /// Waits until all that was pushed before is done. False when `deadline` came first.
  bool WaitUntilDone(std::chrono::steady_clock::time_point deadline);

  /// Lets the taking thread come to its end. What is queued it still gets.
  void Close();

  /// Replaces `lines` by the next ones, after waiting for at least one. They stay where they are
  /// until Done(), which comes before the next Take(). False after Close() when none is left.
  bool Take(std::vector<LogLine>* lines);

  /// The lines of the last Take() are written.
  void Done();

 private:
  // A piece of memory with lines, one behind the other. It comes from the kernel and goes back
  // there: out of the heap of whichever thread logs, each of these heaps would keep its share of
  // the largest burst for ever.
  struct Chunk {
    log_internal::Pages bytes;
    std::size_t size = 0;
    std::size_t used = 0;
  };

  // Steps of Push, Done and Take.
  bool Append(std::uint16_t id, std::string_view text) IPSLA_REQUIRES(mutex_);
  char* Room(std::size_t bytes) IPSLA_REQUIRES(mutex_);
  Chunk TakeSpare() IPSLA_REQUIRES(mutex_);
  void KeepSpare(Chunk* chunk) IPSLA_REQUIRES(mutex_);
  void TellDropped() IPSLA_REQUIRES(mutex_);
  void Rest(PriorityLock* held) IPSLA_REQUIRES(mutex_);

  // Never held for longer than a copy of one line.
  PriorityMutex mutex_;
  PriorityCondition wake_;  // for the taking thread
  PriorityCondition done_;  // for WaitUntilDone

  // What waits for the taking thread, and some empty chunks kept for later.
  std::deque<Chunk> chunks_ IPSLA_GUARDED_BY(mutex_);
  std::array<Chunk, 4> spare_ IPSLA_GUARDED_BY(mutex_);
  // Bytes of all chunks, those being written included.
  std::size_t memory_ IPSLA_GUARDED_BY(mutex_) = 0;
  std::uint64_t pushed_ IPSLA_GUARDED_BY(mutex_) = 0;  // lines
  std::uint64_t written_ IPSLA_GUARDED_BY(mutex_) = 0;
  // Lines by file.
  std::map<std::uint16_t, std::uint64_t> dropped_ IPSLA_GUARDED_BY(mutex_);
  bool is_dropping_ IPSLA_GUARDED_BY(mutex_) = false;
  bool is_asleep_ IPSLA_GUARDED_BY(mutex_) = false;  // the taking thread waits for a line
  bool is_urgent_ IPSLA_GUARDED_BY(mutex_) = false;  // it is not to rest
  bool is_closed_ IPSLA_GUARDED_BY(mutex_) = false;

  // The taking thread's own.
  std::vector<Chunk> taken_;
  std::uint64_t taken_lines_ = 0;
};

}  // namespace ipsla

#endif  // IPSLA_LOG_LINE_QUEUE_H_
