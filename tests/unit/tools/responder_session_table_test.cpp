#include <gtest/gtest.h>

#include "responder/session_table.h"

namespace ipsla::responder {
namespace {

constexpr std::int64_t kMillisecond = 1'000'000;

SessionKey Key(std::uint16_t peer_port, std::uint16_t local_port = 50001) {
  return {.local = {.address = 1, .port = local_port}, .peer = {.address = 2, .port = peer_port}};
}

class SessionTableTest : public testing::Test {
 protected:
  std::uint32_t Open(const SessionKey& key, std::uint32_t duration_ms = 100, std::int64_t now = 0) {
    replaced_.reset();
    return table_.Open(key, SlaTestType::kUdpJitter, duration_ms, now, &replaced_);
  }

  SessionTable table_{3};
  std::optional<Session> replaced_;
};

TEST_F(SessionTableTest, FindsASessionBySourceAndPort) {
  const std::uint32_t first = Open(Key(10));
  const std::uint32_t second = Open(Key(11));
  EXPECT_NE(first, 0U);
  EXPECT_NE(first, second);
  ASSERT_NE(table_.Find(Key(10)), nullptr);
  EXPECT_EQ(table_.Find(Key(10))->id, first);
  EXPECT_EQ(table_.Find(Key(11))->id, second);
  EXPECT_EQ(table_.Find(Key(12)), nullptr);
  EXPECT_EQ(table_.Find(Key(10, 50002)), nullptr);
}

TEST_F(SessionTableTest, EndsEachSessionAfterItsDurationAndGrace) {
  Open(Key(10), 300);
  Open(Key(11), 100);
  EXPECT_EQ(table_.NextEnd(), 100 * kMillisecond + kSessionGrace);
  EXPECT_TRUE(table_.TakeEnded(100 * kMillisecond + kSessionGrace - 1).empty());
  const auto ended = table_.TakeEnded(100 * kMillisecond + kSessionGrace);
  ASSERT_EQ(ended.size(), 1U);
  EXPECT_EQ(ended[0].key, Key(11));
  EXPECT_EQ(table_.Find(Key(11)), nullptr);
  EXPECT_NE(table_.Find(Key(10)), nullptr);
}

TEST_F(SessionTableTest, TakesTheLongestDuration) {
  Open(Key(10), 0xffffffff, 1'000'000'000'000);
  EXPECT_EQ(table_.NextEnd(), 1'000'000'000'000 + 4294967295 * kMillisecond + kSessionGrace);
}

TEST_F(SessionTableTest, ReplacesTheSessionOfASenderThatBeginsANewRun) {
  const std::uint32_t first = Open(Key(10), 100000);
  table_.Find(Key(10))->statistics.received = 5;
  const std::uint32_t second = Open(Key(10), 100);
  ASSERT_TRUE(replaced_.has_value());
  EXPECT_EQ(replaced_->id, first);
  EXPECT_EQ(replaced_->statistics.received, 5U);
  EXPECT_EQ(table_.Size(), 1U);
  EXPECT_EQ(table_.Find(Key(10))->id, second);
  EXPECT_EQ(table_.Find(Key(10))->statistics.received, 0U);
  EXPECT_EQ(table_.NextEnd(), 100 * kMillisecond + kSessionGrace);
}

TEST_F(SessionTableTest, IsFullAtItsBoundButForReplacements) {
  for (std::uint16_t port = 10; port < 13; ++port) {
    EXPECT_TRUE(table_.HasRoomFor(Key(port)));
    Open(Key(port));
  }
  EXPECT_FALSE(table_.HasRoomFor(Key(13)));
  EXPECT_TRUE(table_.HasRoomFor(Key(12)));
  EXPECT_EQ(table_.TakeAll().size(), 3U);
  EXPECT_TRUE(table_.HasRoomFor(Key(13)));
  EXPECT_EQ(table_.NextEnd(), std::nullopt);
}

TEST_F(SessionTableTest, TakesAllInTheOrderOfTheirEnds) {
  Open(Key(10), 300);
  Open(Key(11), 100);
  Open(Key(12), 200);
  const auto all = table_.TakeAll();
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[0].key, Key(11));
  EXPECT_EQ(all[1].key, Key(12));
  EXPECT_EQ(all[2].key, Key(10));
}

}  // namespace
}  // namespace ipsla::responder
