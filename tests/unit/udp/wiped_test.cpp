#include "udp/wiped.h"

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace ipsla {
namespace {

TEST(WipedAtEndTest, BytesAreZeroBehindTheScopeAndNotBefore) {
  std::string text = "a key";
  std::vector<std::uint8_t> bytes;
  {
    const WipedAtEnd wiped_text(text);
    const WipedAtEnd wiped_bytes(bytes);
    bytes = {1, 2, 3};
    EXPECT_EQ(text, "a key");
  }
  EXPECT_EQ(text, std::string(5, '\0'));
  EXPECT_EQ(bytes, (std::vector<std::uint8_t>{0, 0, 0}));
}

}  // namespace
}  // namespace ipsla
