// Every truncation and every single-byte change of what a sender sends to the responder.

#include <gtest/gtest.h>

#include "responder/control_desk.h"
#include "responder/session.h"
#include "support/bytes.h"
#include "support/golden_requests.h"
#include "support/mutations.h"
#include "tools/responder_fake_ports.h"
#include "udp/probe_message.h"

namespace ipsla::responder {
namespace {

using SenderBytes = std::vector<std::uint8_t>;

constexpr Endpoint kChanger = {.address = 0xc0000201, .port = 40001};

// A desk for each request: none knows an earlier one.
struct Desk {
  explicit Desk(bool open) {
    policy.password = "abc";
    policy.allow_open = open;
  }
  EncodedAnswer Handle(const SenderBytes& request) {
    ControlDesk desk(
        policy, [](in_addr) { return true; },
        SessionLimits{.sessions = 8, .sessions_per_source = 5, .duration_ms = 60000}, &ports,
        &report);
    const EncodedAnswer answer = desk.Handle(request, kChanger, 0);
    sessions = desk.Sessions().Size();
    return answer;
  }

  AuthPolicy policy;
  test::FakePorts ports;
  Report report{[](const std::string&) {}, true};
  std::size_t sessions = 0;
};

SenderBytes OpenRequest() {
  return test::FromHex(test::kGoldenRequests[1].hex);
}
SenderBytes SignedRequest() {
  return test::FromHex(test::kGoldenRequests[7].hex);
}

TEST(ChangedControlRequestTest, TruncatedRequestsOpenNothing) {
  for (const SenderBytes& whole : {OpenRequest(), SignedRequest()}) {
    Desk desk(true);
    ASSERT_EQ(desk.Handle(whole).size, whole.size());
    ASSERT_EQ(desk.sessions, 1U);
    test::ForEachTruncation(whole, [&](const SenderBytes& part) {
      ASSERT_LE(desk.Handle(part).size, part.size());
      ASSERT_EQ(desk.sessions, 0U);
    });
  }
}

TEST(ChangedControlRequestTest, NoChangeOfASignedRequestIsTaken) {
  Desk desk(false);
  test::ForEachChange(SignedRequest(), [&](const SenderBytes& request, std::size_t offset) {
    const EncodedAnswer answer = desk.Handle(request);
    ASSERT_EQ(desk.sessions, 0U) << offset;
    if (answer.size == 0) return;
    ASSERT_NE(DecodeControlMessage(answer.Bytes()).status, SlaControlStatus::kSuccessful) << offset;
  });
}

TEST(ChangedControlRequestTest, AnOpenRequestIsTakenOrRefusedAndSaysWhich) {
  Desk desk(true);
  test::ForEachChange(OpenRequest(), [&](const SenderBytes& request, std::size_t offset) {
    const EncodedAnswer answer = desk.Handle(request);
    ASSERT_LE(answer.size, request.size());
    const bool accepted = answer.size != 0 && DecodeControlMessage(answer.Bytes()).status ==
                                                  SlaControlStatus::kSuccessful;
    ASSERT_EQ(desk.sessions, accepted ? 1U : 0U) << offset;
  });
}

class ChangedProbeTest : public testing::TestWithParam<SlaTestType> {
 protected:
  static SenderBytes Probe() {
    SenderBytes probe(64, 0xA5);
    std::fill_n(probe.begin(), ProbeHeaderSize(GetParam()), std::uint8_t{0});
    EncodeProbe(GetParam(), 1, probe);
    return probe;
  }

  // Whether it is answered by a session that has seen nothing yet.
  static bool IsAnswered(SenderBytes probe) {
    const SenderBytes before = probe;
    Session session;
    session.type = GetParam();
    const bool answered = AnswerProbe(&session, {.tv_sec = 1, .tv_nsec = 2}, probe);
    EXPECT_EQ(probe.size(), before.size());
    EXPECT_TRUE(answered || probe == before) << "what is not answered is left alone";
    const SessionStatistics& statistics = session.run.statistics;
    EXPECT_EQ(statistics.distinct + statistics.duplicates, statistics.received);
    return answered;
  }
};

TEST_P(ChangedProbeTest, TruncatedProbesAreAnsweredAtTheirLengthOrNot) {
  EXPECT_TRUE(IsAnswered(Probe()));
  test::ForEachTruncation(Probe(), [](const SenderBytes& part) {
    const bool answered = IsAnswered(part);
    ASSERT_TRUE(!answered || part.size() >= 2);
  });
}

TEST_P(ChangedProbeTest, OnlyProbesOfTheSessionsTypeAreAnswered) {
  test::ForEachChange(Probe(), [](const SenderBytes& probe, std::size_t offset) {
    const bool answered = IsAnswered(probe);
    ASSERT_TRUE(!answered || offset >= 2) << "another type";
    ASSERT_TRUE(answered || offset < ProbeHeaderSize(GetParam())) << "padding";
  });
}

INSTANTIATE_TEST_SUITE_P(Types, ChangedProbeTest,
                         testing::Values(SlaTestType::kUdpEcho, SlaTestType::kUdpJitter,
                                         SlaTestType::kUdpJitterNtp));

}  // namespace
}  // namespace ipsla::responder
