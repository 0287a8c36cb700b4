#include <gtest/gtest.h>

#include "responder/token_bucket.h"

namespace ipsla::responder {
namespace {

constexpr std::int64_t kBucketSecond = 1'000'000'000;
constexpr Rate kThreeAtOnce = {.burst = 3, .per_second = 10};

int TakeAllTokens(TokenBucket* bucket, std::int64_t now) {
  int taken = 0;
  while (taken < 100 && bucket->Take(kThreeAtOnce, now)) ++taken;
  return taken;
}

TEST(TokenBucket, GivesABurstAndThenSoManyASecond) {
  TokenBucket bucket;
  EXPECT_EQ(TakeAllTokens(&bucket, 5 * kBucketSecond), 3);
  EXPECT_EQ(TakeAllTokens(&bucket, 5 * kBucketSecond + kBucketSecond / 10 - 1), 0);
  EXPECT_EQ(TakeAllTokens(&bucket, 5 * kBucketSecond + kBucketSecond / 10), 1);
  EXPECT_EQ(TakeAllTokens(&bucket, 5 * kBucketSecond + kBucketSecond * 3 / 10), 2);
  EXPECT_EQ(TakeAllTokens(&bucket, 100 * kBucketSecond), 3);
}

TEST(TokenBucket, BeginsFullAtWhateverTime) {
  for (const std::int64_t now : std::initializer_list<std::int64_t>{0, 1, 1LL << 60}) {
    TokenBucket bucket;
    EXPECT_EQ(TakeAllTokens(&bucket, now), 3) << now;
  }
}

TEST(SourceLimiter, CountsSourcesApart) {
  SourceLimiter limiter(kThreeAtOnce);
  int first = 0;
  while (first < 100 && limiter.Take(0x7f000001, 0)) ++first;
  EXPECT_EQ(first, 3);
  // Two of 4096 buckets may be the same one: of twenty others most are not.
  int free = 0;
  for (std::uint32_t source = 1; source <= 20; ++source) free += limiter.Take(source, 0) ? 1 : 0;
  EXPECT_GE(free, 15);
}

}  // namespace
}  // namespace ipsla::responder
