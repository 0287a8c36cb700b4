#include <gtest/gtest.h>

#include "responder/nonce_memory.h"

namespace ipsla::responder {
namespace {

NonceMemory::Nonce NonceNumber(std::uint8_t number) {
  NonceMemory::Nonce nonce{};
  nonce[15] = number;
  return nonce;
}

TEST(NonceMemory, KnowsANonceAgain) {
  NonceMemory memory;
  EXPECT_TRUE(memory.Remember(NonceNumber(1)));
  EXPECT_TRUE(memory.Remember(NonceNumber(2)));
  EXPECT_FALSE(memory.Remember(NonceNumber(1)));
  EXPECT_FALSE(memory.Remember(NonceNumber(2)));
}

TEST(NonceMemory, ForgetsTheOldestBeyondItsBound) {
  NonceMemory memory(3);
  for (std::uint8_t number = 1; number <= 4; ++number) {
    EXPECT_TRUE(memory.Remember(NonceNumber(number)));
  }
  EXPECT_FALSE(memory.Remember(NonceNumber(2)));
  EXPECT_FALSE(memory.Remember(NonceNumber(4)));
  EXPECT_TRUE(memory.Remember(NonceNumber(1)));
  EXPECT_TRUE(memory.Remember(NonceNumber(2)));  // was the oldest when 1 came back
}

}  // namespace
}  // namespace ipsla::responder
