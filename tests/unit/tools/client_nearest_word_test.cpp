#include <array>

#include <gtest/gtest.h>

#include "client/nearest_word.h"

namespace ipsla::client {
namespace {

constexpr std::array<std::string_view, 7> kWords{
    "vrf-instance", "sla-id", "src-address", "dst-address", "dst-port", "num-packets", "ttl"};

TEST(NearestWord, FindsWhatWasMeant) {
  const std::pair<const char*, const char*> cases[] = {
      {"vrf", "vrf-instance"},       {"instance", "vrf-instance"},
      {"SLA_ID", "sla-id"},          {"slaid", "sla-id"},
      {"src-adress", "src-address"}, {"dts-port", "dst-port"},
      {"packets", "num-packets"},    {"tll", "ttl"},
      {"dst-addres", "dst-address"},
  };
  for (const auto& [word, meant] : cases) {
    EXPECT_EQ(NearestWord(word, kWords), meant) << word;
  }
}

TEST(NearestWord, DoesNotGuessWildly) {
  for (const char* word : {"", "x", "id", "comment", "description", "hop-limit", "a"}) {
    EXPECT_EQ(NearestWord(word, kWords), "") << word;
  }
  EXPECT_EQ(NearestWord(std::string(100000, 'v'), kWords), "");
}

}  // namespace
}  // namespace ipsla::client
