#include "responder/token_bucket.h"

#include <random>

namespace ipsla::responder {

namespace {

constexpr unsigned kBucketBits = 12;

std::uint64_t RandomOddNumber() {
  std::random_device device;
  const std::uint64_t high = device();
  return (high << 32U) | device() | 1U;
}

}  // namespace

SourceLimiter::SourceLimiter(const Rate& rate)
    : rate_(rate), multiplier_(RandomOddNumber()), buckets_(std::size_t{1} << kBucketBits) {}

bool SourceLimiter::Take(std::uint32_t source, std::int64_t now) {
  const std::uint64_t mixed = (std::uint64_t{source} + 1) * multiplier_;
  return buckets_[static_cast<std::size_t>(mixed >> (64U - kBucketBits))].Take(rate_, now);
}

}  // namespace ipsla::responder
