#include "log/line_time.h"

#include <cstring>

namespace ipsla {

void LineTime::PutBefore(const LogLine& line, std::time_t now) {
  if (now != second_) Make(now);
  std::memcpy(line.bytes.data(), text_.data(), LogLine::kTimeBytes);
}

void LineTime::Make(std::time_t now) {
  tzset();
  tm local{};
  localtime_r(&now, &local);
  std::strftime(text_.data(), text_.size(), "%d-%m-%Y %T: ", &local);
  second_ = now;
}

}  // namespace ipsla
