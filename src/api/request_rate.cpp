#include "api/request_rate.h"

#include <algorithm>

namespace ipsla {
namespace {

constexpr auto kEach = std::chrono::nanoseconds(std::chrono::seconds(1)) / RequestRate::kPerSecond;

}  // namespace

bool RequestRate::Pass(Time now) {
  const Time passed = std::max(all_gone_, now);
  if (passed - now > kEach * (kAtOnce - 1)) return false;
  all_gone_ = passed + kEach;
  return true;
}

}  // namespace ipsla
