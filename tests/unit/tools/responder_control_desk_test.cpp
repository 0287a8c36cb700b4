// The desk without sockets: what it opens, what it answers, and that nothing foreign brings it
// down.

#include <algorithm>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "responder/control_desk.h"
#include "support/bytes.h"
#include "support/golden_requests.h"
#include "tools/responder_fake_ports.h"
#include "tools/responder_probe.h"
#include "udp/digest.h"

namespace ipsla::responder {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Status = SlaControlStatus;

constexpr std::int64_t kDeskSecond = 1'000'000'000;
constexpr Endpoint kAsker = {.address = 0xc0000201, .port = 40001};
constexpr const char* kDeskKey = "abc";

Bytes GoldenBytes(std::string_view name) {
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    if (golden.name == name) return test::FromHex(golden.hex);
  }
  ADD_FAILURE() << name;
  return Bytes(kControlMessageSize, 0);
}

// A golden request with another nonce or measurement port, signed anew where it was signed.
Bytes SignedAnew(const Bytes& request, std::uint8_t nonce, std::uint16_t port = 0) {
  ControlPhaseMessage message = DecodeControlMessage(request);
  if (port != 0) message.measurement_sender_port = port;
  message.nonce[0] = nonce;
  ControlMessageBytes bytes = EncodeControlMessage(message);
  if (const auto digest = MessageDigest(message.auth_algorithm, bytes, kDeskKey)) {
    std::ranges::copy(*digest, bytes.begin() + kDigestOffset);
  }
  return {bytes.begin(), bytes.end()};
}

AuthPolicy BothPolicy() {
  AuthPolicy policy;
  policy.password = kDeskKey;
  policy.allow_open = true;
  return policy;
}

class ControlDeskTest : public testing::Test {
 protected:
  ControlPhaseMessage Ask(const Bytes& request, std::int64_t now = 0,
                          const Endpoint& source = kAsker) {
    const EncodedAnswer answer = desk_.Handle(request, source, now);
    EXPECT_EQ(answer.size, kControlMessageSize);
    return DecodeControlMessage(answer.Bytes());
  }

  test::FakePorts ports_;
  std::vector<std::string> lines_;
  Report report_{[this](const std::string& line) { lines_.push_back(line); }, false};
  ControlDesk desk_{BothPolicy(), [](in_addr) { return true; },
                    SessionLimits{.sessions = 8, .sessions_per_source = 5, .duration_ms = 60000},
                    &ports_, &report_};
  const Bytes open_ = GoldenBytes("UdpJitterOpen");
  const Bytes signed_ = GoldenBytes("UdpJitterPasswordHmac");
};

TEST_F(ControlDeskTest, AnswersACopyOfASignedRequestWithTheSameSession) {
  const ControlPhaseMessage first = Ask(signed_);
  ASSERT_EQ(first.status, Status::kSuccessful);
  const std::int64_t end = desk_.Sessions().NextCheck().value_or(0);
  const ControlPhaseMessage again = Ask(signed_, kDeskSecond / 2);
  EXPECT_EQ(EncodeControlMessage(again), EncodeControlMessage(first));
  EXPECT_EQ(desk_.Sessions().NextCheck(), end);
  EXPECT_EQ(desk_.Counts().opened, 1U);
  EXPECT_EQ(desk_.Counts().answered_again, 1U);
  EXPECT_EQ(ports_.Holds(), 1);
}

TEST_F(ControlDeskTest, RefusesANonceThatItKnows) {
  ASSERT_EQ(Ask(signed_).status, Status::kSuccessful);
  ASSERT_EQ(Ask(SignedAnew(signed_, 2)).status, Status::kSuccessful);
  EXPECT_EQ(Ask(signed_).auth_status, Status::kAuthenticationFail);
  // Nor for another port.
  EXPECT_EQ(Ask(SignedAnew(signed_, 2, 1234)).auth_status, Status::kAuthenticationFail);
  while (desk_.EndOne(100 * kDeskSecond)) {
  }
  EXPECT_EQ(Ask(signed_, 100 * kDeskSecond).auth_status, Status::kAuthenticationFail);
  EXPECT_EQ(desk_.Counts().repeated, 3U);
  EXPECT_EQ(ports_.Holds(), 0);
}

TEST_F(ControlDeskTest, DoesNotRememberNoncesOfForgedRequests) {
  Bytes forged = signed_;
  forged[kDigestOffset] ^= 1U;
  EXPECT_EQ(Ask(forged).auth_status, Status::kAuthenticationFail);
  EXPECT_EQ(Ask(signed_).status, Status::kSuccessful);
}

TEST_F(ControlDeskTest, ReportsTheRunsOfAnOpenSession) {
  ASSERT_EQ(Ask(open_).session_id, 1U);
  Session* const session = desk_.Sessions().Find(
      {.local = ports_.Last(), .peer = {.address = 0xc0000221, .port = 40002}});
  ASSERT_NE(session, nullptr);
  for (int run = 0; run < 3; ++run) {
    for (std::uint32_t sequence = 1; sequence <= 20; ++sequence) {
      Bytes probe = test::Probe(SlaTestType::kUdpJitter, sequence);
      ASSERT_TRUE(AnswerProbe(session, {}, probe));
      EXPECT_EQ(DecodeReply(probe).counter, sequence);
      desk_.NoteProbe(session, run * kDeskSecond);
    }
    ASSERT_EQ(Ask(open_, run * kDeskSecond).session_id, 1U);
  }
  desk_.EndAll(3 * kDeskSecond);
  ASSERT_EQ(lines_.size(), 3U);
  EXPECT_THAT(lines_[0], testing::StartsWith("session 1 restarted: udp-jitter from "));
  EXPECT_THAT(lines_[2], testing::StartsWith("session 1 stopped: "));
  for (const std::string& line : lines_) {
    EXPECT_THAT(line, testing::HasSubstr("received 20, distinct 20, duplicates 0"));
  }
  EXPECT_EQ(desk_.Counts().probes.received, 60U);
}

// The numbers alone say that the old run goes on: 5 was not among them.
TEST_F(ControlDeskTest, TakesARequestBehindTheDurationForTheNextRun) {
  ControlPhaseMessage message = DecodeControlMessage(open_);
  message.duration_ms = 1000;
  const ControlMessageBytes bytes = EncodeControlMessage(message);
  const Bytes request(bytes.begin(), bytes.end());
  const auto counter_of = [this](std::uint32_t sequence) {
    Session* const session = desk_.Sessions().Find(
        {.local = ports_.Last(), .peer = {.address = 0xc0000221, .port = 40002}});
    Bytes probe = test::Probe(SlaTestType::kUdpJitter, sequence);
    EXPECT_TRUE(AnswerProbe(session, {}, probe));
    return DecodeReply(probe).counter;
  };
  Ask(request);
  for (const std::uint32_t sequence : {1U, 2U, 3U, 4U}) EXPECT_EQ(counter_of(sequence), sequence);
  Ask(request, kDeskSecond);
  ASSERT_EQ(desk_.Counts().answered_again, 1U);
  EXPECT_THAT(lines_, testing::ElementsAre(testing::HasSubstr("received 4, distinct 4")));
  for (const std::uint32_t sequence : {1U, 2U, 3U}) EXPECT_EQ(counter_of(sequence), sequence);
  EXPECT_EQ(counter_of(5), 4U);
}

TEST_F(ControlDeskTest, GivesAnOpenRunThatBeginsAnewItsWholeDuration) {
  Ask(open_);
  const std::int64_t end = desk_.Sessions().NextCheck().value_or(0);
  Ask(open_, kDeskSecond);
  EXPECT_EQ(desk_.Sessions().TakeEnded(end), nullptr);
  EXPECT_NE(desk_.Sessions().TakeEnded(end + kDeskSecond), nullptr);
}

TEST_F(ControlDeskTest, RefusesWhatThePortsRefuse) {
  ports_.fault = Status::kUnknownInternalError;
  EXPECT_EQ(Ask(open_).measurement_status, Status::kUnknownInternalError);
  ports_.fault = Status::kSuccessful;
  EXPECT_EQ(Ask(open_).status, Status::kSuccessful);
}

TEST_F(ControlDeskTest, RefusesForWantOfMemory) {
  ports_.out_of_memory = true;
  EXPECT_EQ(Ask(open_).measurement_status, Status::kUnknownInternalError);
  EXPECT_EQ(desk_.Counts().out_of_memory, 1U);
  ports_.out_of_memory = false;
  EXPECT_EQ(Ask(open_).status, Status::kSuccessful);
}

TEST_F(ControlDeskTest, BoundsTheSessionsOfASource) {
  for (std::uint16_t port = 1; port <= 5; ++port) {
    EXPECT_EQ(Ask(SignedAnew(open_, 0, port)).status, Status::kSuccessful);
  }
  EXPECT_EQ(Ask(SignedAnew(open_, 0, 6)).measurement_status, Status::kRequestedPortIsBusy);
  const Endpoint other = {.address = 77, .port = 1};
  for (std::uint16_t port = 11; port <= 13; ++port) {
    EXPECT_EQ(Ask(SignedAnew(open_, 0, port), 0, other).status, Status::kSuccessful);
  }
  EXPECT_EQ(Ask(SignedAnew(open_, 0, 14), 0, other).measurement_status,
            Status::kRequestedPortIsBusy);
  EXPECT_EQ(desk_.Counts().full_for_source, 1U);
  EXPECT_EQ(desk_.Counts().full, 1U);
  EXPECT_EQ(ports_.Holds(), 8);
}

TEST_F(ControlDeskTest, ShortensASessionAndSaysSo) {
  Bytes long_request = open_;
  std::fill_n(long_request.begin() + 168, 4, std::uint8_t{0xff});
  EXPECT_EQ(Ask(long_request).duration_ms, 60000U);
  EXPECT_THAT(lines_,
              testing::ElementsAre("session 1 shortened: 4294967295 ms asked for, 60000 ms given"));
}

TEST_F(ControlDeskTest, RefusesASourceAtABoundedRate) {
  Bytes faulty = open_;
  faulty[0] = 9;
  int answers = 0;
  for (int i = 0; i < 10000; ++i) answers += desk_.Handle(faulty, kAsker, 0).size > 0 ? 1 : 0;
  EXPECT_EQ(answers, kRefusals.burst);
  EXPECT_EQ(desk_.Counts().held_back, 10000U - static_cast<std::uint64_t>(kRefusals.burst));
  // What is not refused is answered all the same.
  EXPECT_EQ(Ask(open_).status, Status::kSuccessful);
}

// Whatever comes, from anywhere: no crash, no answer longer than its cause, refusals and sessions
// within their bounds.
class HostileInputTest : public ControlDeskTest {
 protected:
  Bytes Mutated() {
    const auto& golden = test::kGoldenRequests[Number(std::size(test::kGoldenRequests))];
    Bytes bytes = test::FromHex(golden.hex);
    switch (Number(8)) {
      case 0:
        bytes.resize(Number(400));
        for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(Number(256));
        break;
      case 1:
        bytes.resize(Number(200));
        break;
      case 2:
        bytes = SignedAnew(bytes, static_cast<std::uint8_t>(Number(256)),
                           static_cast<std::uint16_t>(Number(65536)));
        break;
      default:
        for (std::size_t i = Number(4); i > 0; --i) {
          bytes[Number(bytes.size())] = static_cast<std::uint8_t>(Number(256));
        }
    }
    return bytes;
  }

  std::size_t Number(std::size_t below) {
    return std::uniform_int_distribution<std::size_t>(0, below - 1)(random_);
  }

  std::mt19937 random_{20240607};
};

TEST_F(HostileInputTest, RequestsFromAnywhereLeaveTheDeskStanding) {
  constexpr int kSources = 10;
  std::int64_t now = 0;
  std::size_t refusals = 0;
  for (int i = 0; i < 50000; ++i) {
    const Endpoint source = {.address = static_cast<std::uint32_t>(Number(kSources)), .port = 9};
    const Bytes request = Mutated();
    const EncodedAnswer answer = desk_.Handle(request, source, now);
    ASSERT_LE(answer.size, request.size());
    ASSERT_LE(desk_.Sessions().Size(), 8U);
    ASSERT_EQ(static_cast<std::size_t>(ports_.Holds()), desk_.Sessions().Size());
    const ControlPhaseMessage decoded = DecodeControlMessage(answer.Bytes());
    if (answer.size > 0 && decoded.status != Status::kSuccessful) ++refusals;
    if (Number(10) == 0) now += static_cast<std::int64_t>(Number(10'000'000));
    while (desk_.EndOne(now)) {
    }
  }
  const auto seconds = static_cast<std::size_t>(now / kDeskSecond + 1);
  EXPECT_LE(refusals, kSources * (kRefusals.burst + kRefusals.per_second * seconds));
  EXPECT_GT(desk_.Counts().opened, 1000U);
  EXPECT_GT(desk_.Counts().refusals.Total(), 10000U);
  desk_.EndAll(now);
  EXPECT_EQ(ports_.Holds(), 0);
}

TEST_F(HostileInputTest, ProbesOfAnyKindAreAnsweredInPlaceOrNotAtAll) {
  Session session;
  std::uint64_t answers = 0;
  for (int i = 0; i < 50000; ++i) {
    if (i % 5000 == 0) {
      session = Session{};
      session.type = static_cast<SlaTestType>(1 + Number(3));
    }
    if (Number(500) == 0) ExpectRestart(&session);
    Bytes probe = test::Probe(session.type, static_cast<std::uint32_t>(Number(100)), Number(80));
    if (Number(3) == 0 && !probe.empty()) {
      probe[Number(probe.size())] = static_cast<std::uint8_t>(Number(256));
    }
    const Bytes before = probe;
    const bool answered = AnswerProbe(&session, {.tv_sec = i, .tv_nsec = i}, probe);
    ASSERT_EQ(probe.size(), before.size());
    ASSERT_TRUE(answered || probe == before);
    if (answered) {
      ++answers;
      CountReply(&session, Number(2) == 0);
      // A shorter echo has no room for a counter.
      ASSERT_TRUE(probe.size() < 28 ||
                  DecodeReply(probe).counter <= session.run.statistics.received);
    }
    session.previous_run.reset();
  }
  EXPECT_GT(answers, 1000U);
}

}  // namespace
}  // namespace ipsla::responder
