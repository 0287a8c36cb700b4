// How often something may happen: a burst at once, then so many a second. Pure, on the caller's
// clock.

#ifndef IPSLA_TOOLS_RESPONDER_TOKEN_BUCKET_H_
#define IPSLA_TOOLS_RESPONDER_TOKEN_BUCKET_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace ipsla::responder {

/// A rate that many buckets share.
struct Rate {
  std::int64_t burst = 1;  ///< that many at once
  std::int64_t per_second = 1;
};

/// One word of state: the time at which the bucket will be full again. Times are the steady clock
/// in nanoseconds.
class TokenBucket {
 public:
  /// Takes a token. False when there is none.
  bool Take(const Rate& rate, std::int64_t now) {
    const std::int64_t each = 1'000'000'000 / rate.per_second;
    const std::int64_t full = std::max(full_, now);
    if (full - now > (rate.burst - 1) * each) return false;
    full_ = full + each;
    return true;
  }

 private:
  // When the bucket will be full again, nanoseconds of the steady clock.
  std::int64_t full_ = std::numeric_limits<std::int64_t>::min();
};

/// A bucket for each IPv4 address, in bounded memory: addresses share 4096 buckets in a way that a
/// peer cannot foresee. Sharing makes a limit stricter, never laxer.
class SourceLimiter {
 public:
  explicit SourceLimiter(const Rate& rate);

  /// Takes a token of the source, an address in host order. False when it has none.
  bool Take(std::uint32_t source, std::int64_t now);

 private:
  const Rate rate_;
  const std::uint64_t multiplier_;  // odd and random
  std::vector<TokenBucket> buckets_;
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_TOKEN_BUCKET_H_
