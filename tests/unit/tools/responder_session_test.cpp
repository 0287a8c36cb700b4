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
  EXPECT_EQ(session.run.statistics.distinct, 4U);
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
  EXPECT_EQ(session.run.statistics.received, 4U);
  EXPECT_EQ(session.run.statistics.distinct, 3U);
  EXPECT_EQ(session.run.statistics.duplicates, 1U);
  EXPECT_EQ(session.run.statistics.out_of_order, 0U);
}

TEST(AnswerProbe, CountsReorderedProbes) {
  Session session = MakeSession(SlaTestType::kUdpJitter);
  for (const std::uint32_t sequence : {1U, 4U, 3U, 2U, 5U}) {
    std::vector<std::uint8_t> probe = Probe(SlaTestType::kUdpJitter, sequence);
    ASSERT_TRUE(AnswerProbe(&session, kArrival, probe));
  }
  EXPECT_EQ(session.run.statistics.out_of_order, 2U);
  EXPECT_EQ(session.run.statistics.distinct, 5U);
}

TEST(AnswerProbe, RefusesEveryLengthBelowTheHeaderAndOtherTypes) {
  for (const SlaTestType type :
       {SlaTestType::kUdpEcho, SlaTestType::kUdpJitter, SlaTestType::kUdpJitterNtp}) {
    Session session = MakeSession(type);
    std::uint64_t refused = 0;
    for (std::size_t size = 0; size < ProbeHeaderSize(type); ++size) {
      std::vector<std::uint8_t> probe = Probe(type, 1, size);
      EXPECT_FALSE(AnswerProbe(&session, kArrival, probe)) << size;
      EXPECT_EQ(session.run.statistics.Errors(), ++refused);
    }
    for (const std::uint16_t other :
         std::initializer_list<std::uint16_t>{0x0000, 0x0004, 0x0101, 0x0102, 0x0103, 0xffff}) {
      std::vector<std::uint8_t> probe = Probe(type, 1);
      probe[0] = static_cast<std::uint8_t>(other >> 8U);
      probe[1] = static_cast<std::uint8_t>(other);
      EXPECT_FALSE(AnswerProbe(&session, kArrival, probe)) << other;
      EXPECT_EQ(session.run.statistics.Errors(), ++refused);
    }
    EXPECT_EQ(session.run.statistics.received, 0U);
  }
}

TEST(AnswerProbe, EndsALoopOfRepliesByTheNumberOfDuplicates) {
  Session session = MakeSession(SlaTestType::kUdpEcho);
  std::vector<std::uint8_t> looping = Probe(SlaTestType::kUdpEcho, 1);
  std::uint64_t answered = 0;
  while (answered < 1000 && AnswerProbe(&session, kArrival, looping)) ++answered;
  EXPECT_EQ(answered, 1 + 1 + kFreeDuplicates);
  EXPECT_EQ(session.run.statistics.Errors(), 1U);
  // A new probe is answered again.
  std::vector<std::uint8_t> fresh = Probe(SlaTestType::kUdpEcho, 2);
  EXPECT_TRUE(AnswerProbe(&session, kArrival, fresh));
}

TEST(AnswerProbe, AnswersEveryFirstCopyHoweverManyDuplicatesCome) {
  Session session = MakeSession(SlaTestType::kUdpJitter);
  for (std::uint32_t sequence = 1; sequence <= 1000; ++sequence) {
    for (int copy = 0; copy < 4; ++copy) {
      std::vector<std::uint8_t> probe = Probe(SlaTestType::kUdpJitter, sequence);
      const bool answered = AnswerProbe(&session, kArrival, probe);
      ASSERT_TRUE(answered || copy > 0) << sequence;
      ASSERT_TRUE(!answered || DecodeReply(probe).counter == sequence) << sequence;
    }
  }
  EXPECT_EQ(session.run.statistics.distinct, 1000U);
  EXPECT_EQ(session.run.statistics.unanswered, 3000 - 1000 - kFreeDuplicates);
}

class RestartTest : public testing::Test {
 protected:
  // The counter of the reply to a probe.
  std::uint32_t Ask(std::uint32_t sequence) {
    std::vector<std::uint8_t> probe = Probe(session_.type, sequence);
    EXPECT_TRUE(AnswerProbe(&session_, kArrival, probe)) << sequence;
    CountReply(&session_, true);
    const ProbeReply reply = DecodeReply(probe);
    EXPECT_EQ(reply.sequence, sequence);
    return reply.counter;
  }

  // What a second request without authentication does.
  void AskedAgain() { ExpectRestart(&session_); }

  // Probes from `first` to `last`; the counter of the last reply.
  std::uint32_t AskAll(std::uint32_t first, std::uint32_t last) {
    std::uint32_t counter = 0;
    for (std::uint32_t sequence = first; sequence <= last; ++sequence) counter = Ask(sequence);
    return counter;
  }

  Session session_ = MakeSession(SlaTestType::kUdpJitter);
};

TEST_F(RestartTest, TheOldRunGoesOnWhereANewNumberComes) {
  EXPECT_EQ(AskAll(1, 5), 5U);
  AskedAgain();
  EXPECT_EQ(AskAll(6, 10), 10U);
  EXPECT_EQ(session_.restart, nullptr);
  EXPECT_FALSE(session_.previous_run.has_value());
}

TEST_F(RestartTest, TheOldRunGoesOnAmongCopiesThatComeLate) {
  AskAll(1, 20);
  AskedAgain();
  for (std::uint32_t sequence = 21; sequence <= 60; ++sequence) {
    static_cast<void>(Ask(sequence - 7));
    static_cast<void>(Ask(sequence - 6));
    EXPECT_EQ(Ask(sequence), sequence);
  }
  EXPECT_FALSE(session_.previous_run.has_value());
  EXPECT_EQ(session_.run.statistics.duplicates, 80U);
}

TEST_F(RestartTest, ANewRunIsCountedFromItsFirstProbe) {
  AskAll(1, 100);
  AskedAgain();
  for (std::uint32_t sequence = 1; sequence <= 100; ++sequence) EXPECT_EQ(Ask(sequence), sequence);
  ASSERT_TRUE(session_.previous_run.has_value());
  EXPECT_EQ(session_.previous_run->received, 100U);
  EXPECT_EQ(session_.previous_run->replies, 100U);
  EXPECT_EQ(session_.run.statistics.received, 100U);
  EXPECT_EQ(session_.run.statistics.duplicates, 0U);
  EXPECT_EQ(session_.run.statistics.replies, 100U);
}

TEST_F(RestartTest, LossInANewRunIsSeenWhateverTheOldOneLost) {
  for (const std::uint32_t sequence : {1U, 2U, 4U, 5U, 6U, 7U, 9U, 10U}) Ask(sequence);
  AskedAgain();
  std::uint32_t expected = 0;
  for (const std::uint32_t sequence : {2U, 3U, 4U, 6U, 8U, 9U, 10U}) {
    EXPECT_EQ(Ask(sequence), ++expected) << sequence;
  }
}

TEST_F(RestartTest, ANewRunGoesBeyondAnOldOneThatWasCutShort) {
  for (const std::uint32_t old : {1U, 2U, 3U, 20U}) {
    session_ = MakeSession(SlaTestType::kUdpJitter);
    AskAll(1, old);
    AskedAgain();
    for (std::uint32_t sequence = 1; sequence <= 50; ++sequence) {
      EXPECT_EQ(Ask(sequence), sequence) << old;
    }
  }
}

TEST_F(RestartTest, ShortRunsAreCountedEach) {
  for (const std::uint32_t probes : {1U, 2U, 5U}) {
    session_ = MakeSession(SlaTestType::kUdpJitter);
    EXPECT_EQ(AskAll(1, probes), probes);
    for (int run = 0; run < 20; ++run) {
      AskedAgain();
      EXPECT_EQ(AskAll(1, probes), probes);
      // The run before the one that is now told from it.
      if (run == 0) continue;
      ASSERT_TRUE(session_.previous_run.has_value());
      EXPECT_EQ(session_.previous_run->received, probes);
      session_.previous_run.reset();
    }
  }
}

TEST_F(RestartTest, ARequestBeforeAllProbesChangesNothing) {
  AskedAgain();
  EXPECT_EQ(session_.restart, nullptr);
  EXPECT_EQ(AskAll(1, 3), 3U);
}

TEST_F(RestartTest, EchoNumbersStartOverBeyond16Bits) {
  session_ = MakeSession(SlaTestType::kUdpEcho);
  for (const std::uint32_t sequence : {1U, 30000U, 60000U, 70000U}) Ask(sequence);
  AskedAgain();
  for (std::uint32_t sequence = 1; sequence <= 20; ++sequence) EXPECT_EQ(Ask(sequence), sequence);
}

TEST(StatisticsLine, NamesTheSessionAndItsCounts) {
  const Session session = MakeSession(SlaTestType::kUdpJitter);
  const SessionStatistics statistics = {.received = 12,
                                        .distinct = 10,
                                        .duplicates = 2,
                                        .out_of_order = 1,
                                        .replies = 11,
                                        .malformed = 1,
                                        .unanswered = 1,
                                        .unsent = 2};
  EXPECT_EQ(StatisticsLine(session, statistics, "ended"),
            "session 3 ended: udp-jitter from 192.0.2.1:40002 to 127.0.0.1:50001, received 12, "
            "distinct 10, duplicates 2, out of order 1, replies 11, errors 4");
}

TEST(Endpoint, SurvivesTheWayThroughASocketAddress) {
  const Endpoint endpoint = {.address = 0xc0000221, .port = 65535};
  EXPECT_EQ(FromSockaddr(ToSockaddr(endpoint)), endpoint);
  EXPECT_EQ(ToString(endpoint), "192.0.2.33:65535");
}

}  // namespace
}  // namespace ipsla::responder
