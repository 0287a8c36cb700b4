#include <vector>

#include <gtest/gtest.h>

#include "responder/session_table.h"

namespace ipsla::responder {
namespace {

constexpr std::int64_t kTableMillisecond = 1'000'000;
constexpr std::uint32_t kTableSource = 0xc0000201;

SessionKey Key(std::uint16_t peer_port, std::uint16_t local_port = 50001) {
  return {.local = {.address = 1, .port = local_port}, .peer = {.address = 2, .port = peer_port}};
}

class SessionTableTest : public testing::Test {
 protected:
  std::uint32_t Open(const SessionKey& key, std::uint32_t duration_ms = 100, std::int64_t now = 0,
                     std::uint32_t source = kTableSource) {
    replaced_.reset();
    Session wanted;
    wanted.type = SlaTestType::kUdpJitter;
    wanted.key = key;
    wanted.source = source;
    return table_.Open(std::move(wanted), duration_ms, now, &replaced_).id;
  }

  // Takes whatever is due.
  std::vector<SessionKey> TakeAllEnded(std::int64_t now) {
    std::vector<SessionKey> keys;
    while (const SessionTable::Node session = table_.TakeEnded(now)) keys.push_back(session->key);
    return keys;
  }

  SessionTable table_{{.sessions = 4,
                       .sessions_per_source = 3,
                       .duration_ms = 3'600'000,
                       .idle = 5000 * kTableMillisecond}};
  SessionTable::Node replaced_;
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
  EXPECT_EQ(table_.NextCheck(), 100 * kTableMillisecond + kSessionGrace);
  EXPECT_EQ(table_.TakeEnded(100 * kTableMillisecond + kSessionGrace - 1), nullptr);
  EXPECT_EQ(TakeAllEnded(100 * kTableMillisecond + kSessionGrace), std::vector{Key(11)});
  EXPECT_EQ(table_.Find(Key(11)), nullptr);
  EXPECT_NE(table_.Find(Key(10)), nullptr);
}

TEST_F(SessionTableTest, CutsADurationToTheLongestLife) {
  Open(Key(10), 0xffffffff, 1'000'000'000'000);
  EXPECT_EQ(table_.Find(Key(10))->end,
            1'000'000'000'000 + 3'600'000 * kTableMillisecond + kSessionGrace);
  table_.Prolong(table_.Find(Key(10)), 0xffffffff, 2'000'000'000'000);
  EXPECT_EQ(table_.Find(Key(10))->end,
            2'000'000'000'000 + 3'600'000 * kTableMillisecond + kSessionGrace);
}

TEST_F(SessionTableTest, EndsASessionToWhichNoProbeComes) {
  Open(Key(10), 60000);
  Open(Key(11), 60000);
  table_.Find(Key(11))->last_heard = 2000 * kTableMillisecond;
  EXPECT_EQ(table_.NextCheck(), 5000 * kTableMillisecond);
  EXPECT_EQ(TakeAllEnded(5000 * kTableMillisecond), std::vector{Key(10)});
  EXPECT_EQ(table_.NextCheck(), 7000 * kTableMillisecond);
  table_.Find(Key(11))->last_heard = 60000 * kTableMillisecond;
  EXPECT_TRUE(TakeAllEnded(60999 * kTableMillisecond).empty());
  EXPECT_EQ(TakeAllEnded(61000 * kTableMillisecond), std::vector{Key(11)});
  EXPECT_EQ(table_.NextCheck(), std::nullopt);
}

TEST_F(SessionTableTest, ProlongsAndNeverShortens) {
  Open(Key(10), 1000);
  Session* const session = table_.Find(Key(10));
  table_.Prolong(session, 1, 500 * kTableMillisecond);
  EXPECT_EQ(session->end, 1000 * kTableMillisecond + kSessionGrace);
  table_.Prolong(session, 1000, 500 * kTableMillisecond);
  EXPECT_TRUE(TakeAllEnded(1000 * kTableMillisecond + kSessionGrace).empty());
  EXPECT_EQ(TakeAllEnded(1500 * kTableMillisecond + kSessionGrace).size(), 1U);
}

TEST_F(SessionTableTest, ReplacesTheSessionOfASenderThatBeginsANewRun) {
  const std::uint32_t first = Open(Key(10), 100000);
  table_.Find(Key(10))->run.statistics.received = 5;
  const std::uint32_t second = Open(Key(10), 100);
  ASSERT_NE(replaced_, nullptr);
  EXPECT_EQ(replaced_->id, first);
  EXPECT_EQ(replaced_->run.statistics.received, 5U);
  EXPECT_EQ(table_.Size(), 1U);
  EXPECT_EQ(table_.Find(Key(10))->id, second);
  EXPECT_EQ(table_.Find(Key(10))->run.statistics.received, 0U);
  EXPECT_EQ(table_.NextCheck(), 100 * kTableMillisecond + kSessionGrace);
}

TEST_F(SessionTableTest, IsFullAtItsBoundsButForReplacements) {
  for (std::uint16_t port = 10; port < 13; ++port) {
    EXPECT_EQ(table_.RoomFor(Key(port), kTableSource), Room::kFree);
    Open(Key(port));
  }
  EXPECT_EQ(table_.RoomFor(Key(13), kTableSource), Room::kFullForSource);
  EXPECT_EQ(table_.RoomFor(Key(12), kTableSource), Room::kFree);
  EXPECT_EQ(table_.RoomFor(Key(13), kTableSource + 1), Room::kFree);
  Open(Key(13), 100, 0, kTableSource + 1);
  // In the place of another's session, too, a source gets no more than its share.
  EXPECT_EQ(table_.RoomFor(Key(13), kTableSource), Room::kFullForSource);
  EXPECT_EQ(table_.RoomFor(Key(14), kTableSource + 2), Room::kFull);
  EXPECT_EQ(table_.RoomFor(Key(13), kTableSource + 2), Room::kFree);
  while (table_.TakeAny()) {
  }
  EXPECT_EQ(table_.Size(), 0U);
  EXPECT_EQ(table_.RoomFor(Key(13), kTableSource), Room::kFree);
  EXPECT_EQ(table_.NextCheck(), std::nullopt);
}

TEST_F(SessionTableTest, KnowsThePortsInUse) {
  EXPECT_EQ(table_.PortInUse(1, {.address = 2, .port = 10}), 0);
  Open(Key(10, 50001));
  Open(Key(11, 50007));
  Open(Key(12, 50007));
  EXPECT_EQ(table_.PortInUse(1, {.address = 2, .port = 10}), 50001);
  EXPECT_EQ(table_.PortInUse(1, {.address = 2, .port = 12}), 50007);
  EXPECT_EQ(table_.PortInUse(1, {.address = 2, .port = 99}), 50007);
  EXPECT_EQ(table_.PortInUse(3, {.address = 2, .port = 10}), 0);
}

}  // namespace
}  // namespace ipsla::responder
