#include "responder/report.h"

#include <fmt/format.h>

namespace ipsla::responder {

void Report::Line(const std::string& line) noexcept {
  try {
    print_(line);
  } catch (const std::bad_alloc&) {
    ++left_out_;
  }
}

bool Report::HasTurn(std::int64_t now) noexcept {
  if (!bucket_.Take(kSessionLines, now)) {
    ++left_out_;
    return false;
  }
  if (told_ == left_out_) return true;
  try {
    print_(fmt::format("{} lines about sessions left out", left_out_ - told_));
    told_ = left_out_;
  } catch (const std::bad_alloc&) {
    return true;  // told next time
  }
  return true;
}

}  // namespace ipsla::responder
