#include <vector>

#include <gtest/gtest.h>

#include "responder/session.h"
#include "support/bytes.h"
#include "tools/responder_probe.h"
#include "udp/probe_message.h"

namespace ipsla::responder {
namespace {

using test::Probe;
using test::ToHex;

// 01:00:00.5 of some day.
constexpr timespec kArrival = {.tv_sec = 86400 * 100 + 3600, .tv_nsec = 500'000'000};

Session MakeSession(SlaTestType type) {
  Session session;
  session.id = 3;
  session.type = type;
  session.key = {.local = {.address = 0x7f000001, .port = 50001},
                 .peer = {.address = 0xc0000201, .port = 40002}};
  return session;
}

TEST(AnswerProbe, GivesTheFieldsOfAJitterReply) {
  Session session = MakeSession(SlaTestType::kUdpJitter);
  std::vector<std::uint8_t> probe = Probe(SlaTestType::kUdpJitter, 9);
  ASSERT_TRUE(AnswerProbe(&session, kArrival, probe));
  const ProbeReply reply = DecodeReply(probe);
  EXPECT_EQ(reply.type, 2);
  EXPECT_EQ(reply.sequence, 9U);
  EXPECT_EQ(reply.counter, 1U);
  EXPECT_EQ(reply.stamp, 360'050'000'000U);  // 3600.5 s in 10 ns
}

TEST(AnswerProbe, GivesTheFieldsOfAnNtpReply) {
  Session session = MakeSession(SlaTestType::kUdpJitterNtp);
  std::vector<std::uint8_t> probe = Probe(SlaTestType::kUdpJitterNtp, 9);
  ASSERT_TRUE(AnswerProbe(&session, kArrival, probe));
  // 2208988800 + 8643600 seconds, half a second.
  EXPECT_EQ(ToHex(std::span(probe).subspan(12, 16)),
            "842e629080000000"
            "0000000900000001");
  EXPECT_EQ(DecodeReply(probe).ntp_value, 1);
}

TEST(AnswerProbe, GivesTheFieldsOfAnEchoReplyThatFit) {
  Session session = MakeSession(SlaTestType::kUdpEcho);
  std::vector<std::uint8_t> probe = Probe(SlaTestType::kUdpEcho, 9, 28);
  ASSERT_TRUE(AnswerProbe(&session, kArrival, probe));
  EXPECT_EQ(DecodeReply(probe).sequence, 9U);
  EXPECT_EQ(DecodeReply(probe).counter, 1U);
  std::vector<std::uint8_t> shortest = Probe(SlaTestType::kUdpEcho, 10, 4);
  ASSERT_TRUE(AnswerProbe(&session, kArrival, shortest));
  EXPECT_EQ(ToHex(shortest), "0001000a");
}

TEST(AnswerProbe, GoesOnCountingEchoesAfter65535) {
  Session session = MakeSession(SlaTestType::kUdpEcho);
  for (const std::uint32_t sequence : {40000U, 65535U, 65536U, 65537U}) {
    std::vector<std::uint8_t> probe = Probe(SlaTestType::kUdpEcho, sequence);
    ASSERT_TRUE(AnswerProbe(&session, kArrival, probe));
    EXPECT_EQ(DecodeReply(probe).sequence, sequence);
  }
  EXPECT_EQ(session.statistics.distinct, 4U);
}

TEST(AnswerProbe, CountsADuplicatedProbeOnceSoThatItHidesNoLoss) {
  Session session = MakeSession(SlaTestType::kUdpJitter);
  std::uint32_t counter = 0;
  for (const std::uint32_t sequence : {1U, 2U, 2U, 4U}) {  // 3 is lost
    std::vector<std::uint8_t> probe = Probe(SlaTestType::kUdpJitter, sequence);
    ASSERT_TRUE(AnswerProbe(&session, kArrival, probe));
    counter = DecodeReply(probe).counter;
  }
  EXPECT_EQ(counter, 3U);
  EXPECT_EQ(session.statistics.received, 4U);
  EXPECT_EQ(session.statistics.distinct, 3U);
  EXPECT_EQ(session.statistics.duplicates, 1U);
  EXPECT_EQ(session.statistics.out_of_order, 0U);
}

TEST(AnswerProbe, CountsReorderedProbes) {
  Session session = MakeSession(SlaTestType::kUdpJitter);
  for (const std::uint32_t sequence : {1U, 4U, 3U, 2U, 5U}) {
    std::vector<std::uint8_t> probe = Probe(SlaTestType::kUdpJitter, sequence);
    ASSERT_TRUE(AnswerProbe(&session, kArrival, probe));
  }
  EXPECT_EQ(session.statistics.out_of_order, 2U);
  EXPECT_EQ(session.statistics.distinct, 5U);
}

TEST(AnswerProbe, RefusesEveryLengthBelowTheHeaderAndOtherTypes) {
  for (const SlaTestType type :
       {SlaTestType::kUdpEcho, SlaTestType::kUdpJitter, SlaTestType::kUdpJitterNtp}) {
    Session session = MakeSession(type);
    std::uint64_t refused = 0;
    for (std::size_t size = 0; size < ProbeHeaderSize(type); ++size) {
      std::vector<std::uint8_t> probe = Probe(type, 1, size);
      EXPECT_FALSE(AnswerProbe(&session, kArrival, probe)) << size;
      EXPECT_EQ(session.statistics.errors, ++refused);
    }
    for (const std::uint16_t other :
         std::initializer_list<std::uint16_t>{0x0000, 0x0004, 0x0101, 0x0102, 0x0103, 0xffff}) {
      std::vector<std::uint8_t> probe = Probe(type, 1);
      probe[0] = static_cast<std::uint8_t>(other >> 8U);
      probe[1] = static_cast<std::uint8_t>(other);
      EXPECT_FALSE(AnswerProbe(&session, kArrival, probe)) << other;
      EXPECT_EQ(session.statistics.errors, ++refused);
    }
    EXPECT_EQ(session.statistics.received, 0U);
  }
}

TEST(AnswerProbe, EndsALoopOfRepliesByTheNumberOfDuplicates) {
  Session session = MakeSession(SlaTestType::kUdpEcho);
  std::vector<std::uint8_t> looping = Probe(SlaTestType::kUdpEcho, 1);
  std::uint64_t answered = 0;
  while (answered < 1000 && AnswerProbe(&session, kArrival, looping)) ++answered;
  EXPECT_EQ(answered, 1 + 1 + kFreeDuplicates);
  EXPECT_EQ(session.statistics.errors, 1U);
  // A new probe is answered again.
  std::vector<std::uint8_t> fresh = Probe(SlaTestType::kUdpEcho, 2);
  EXPECT_TRUE(AnswerProbe(&session, kArrival, fresh));
}

TEST(StatisticsLine, NamesTheSessionAndItsCounts) {
  Session session = MakeSession(SlaTestType::kUdpJitter);
  session.statistics = {.received = 12,
                        .distinct = 10,
                        .duplicates = 2,
                        .out_of_order = 1,
                        .replies = 11,
                        .errors = 4};
  EXPECT_EQ(StatisticsLine(session, "ended"),
            "session 3 ended: udp-jitter from 192.0.2.1:40002 to 127.0.0.1:50001, received 12, "
            "distinct 10, "
            "duplicates 2, out of order 1, replies 11, errors 4");
}

TEST(Endpoint, SurvivesTheWayThroughASocketAddress) {
  const Endpoint endpoint = {.address = 0xc0000221, .port = 65535};
  EXPECT_EQ(FromSockaddr(ToSockaddr(endpoint)), endpoint);
  EXPECT_EQ(ToString(endpoint), "192.0.2.33:65535");
}

}  // namespace
}  // namespace ipsla::responder
