// Lines on a descriptor that may not be read.

#ifndef IPSLA_TOOLS_RESPONDER_LINE_OUTPUT_H_
#define IPSLA_TOOLS_RESPONDER_LINE_OUTPUT_H_

#include <cstdint>
#include <string>

namespace ipsla::responder {

/// Writes lines without ever waiting for a reader: a pipe that is full or closed costs its lines,
/// not the probes that arrive meanwhile. REQUIRES: SIGPIPE is ignored. Single-threaded.
class LineOutput {
 public:
  /// Writes to `fd`, which stays the caller's.
  explicit LineOutput(int fd) : fd_(fd) {}

  /// Writes `line` and a line break, after "N lines lost" where some were. Throws std::bad_alloc.
  void Write(const std::string& line);

 private:
  // Writes one line without waiting. False when it was not taken.
  bool TryWrite(const std::string& line);

  // Where to, and lines not taken that the reader was not told of.
  const int fd_;
  std::uint64_t lost_ = 0;
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_LINE_OUTPUT_H_
