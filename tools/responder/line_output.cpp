#include "responder/line_output.h"

#include <poll.h>
#include <unistd.h>

namespace ipsla::responder {

void LineOutput::Write(const std::string& line) {
  if (lost_ > 0 && TryWrite(std::to_string(lost_) + " lines lost: nobody reads them")) lost_ = 0;
  if (lost_ > 0 || !TryWrite(line)) ++lost_;
}

bool LineOutput::TryWrite(const std::string& line) {
  // A pipe that is ready has room for PIPE_BUF bytes, more than any line has.
  pollfd ready = {.fd = fd_, .events = POLLOUT, .revents = 0};
  if (poll(&ready, 1, 0) != 1 || (ready.revents & POLLOUT) == 0) return false;
  const std::string text = line + "\n";
  return write(fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace ipsla::responder
