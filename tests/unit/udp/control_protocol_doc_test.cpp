// Replays the worked example and the tables of docs/control-protocol.md.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/crypto_faults.h"
#include "support/document.h"
#include "support/udp_task.h"
#include "udp/auth_funcs.h"
#include "udp/digest.h"
#include "udp/probe_message.h"

namespace ipsla {
namespace {

using test::DocumentBytes;
using test::ToHex;

constexpr const char* kPage = "docs/control-protocol.md";

TEST(ControlProtocolPage, RequestIsWhatTheSenderSends) {
  const std::vector<std::uint8_t> page = DocumentBytes(kPage, "request");
  ASSERT_EQ(page.size(), kControlMessageSize);
  SlaTaskConfig task = test::UdpTask();
  task.auth.mode = SlaAuthMode::kPassword;
  task.auth.algorithm = SlaAuthAlgorithm::kHmacSha256;
  ControlPhaseMessage request = BuildControlRequest(task);
  const test::FixedRandomBytes random(
      {page.begin() + kNonceOffset, page.begin() + kNonceOffset + kNonceSize});
  ASSERT_TRUE(SignControlRequest(7, task.auth.algorithm, "abc", &request));
  EXPECT_EQ(ToHex(EncodeControlMessage(request)), ToHex(page));
}

TEST(ControlProtocolPage, DigestOfTheOtherAlgorithmIsRight) {
  ControlPhaseMessage request = DecodeControlMessage(DocumentBytes(kPage, "request"));
  request.auth_algorithm = SlaAuthAlgorithm::kSha256;
  const auto digest =
      MessageDigest(SlaAuthAlgorithm::kSha256, EncodeControlMessage(request), "abc");
  ASSERT_TRUE(digest.has_value());
  EXPECT_EQ(ToHex(*digest), ToHex(DocumentBytes(kPage, "sha256")));
}

TEST(ControlProtocolPage, AnswerIsSignedWithTheSameKey) {
  const std::vector<std::uint8_t> page = DocumentBytes(kPage, "answer");
  ASSERT_EQ(page.size(), kControlMessageSize);
  const ControlPhaseMessage answer = DecodeControlMessage(page);
  EXPECT_EQ(answer.session_id, 7U);
  EXPECT_EQ(
      MessageDigest(answer.auth_algorithm, std::span(page).first<kControlMessageSize>(), "abc"),
      answer.digest);
}

TEST(ControlProtocolPage, ProbeAndReplyAreWhatBothEndsSend) {
  const std::vector<std::uint8_t> page_probe = DocumentBytes(kPage, "probe");
  std::vector<std::uint8_t> probe(ProbeHeaderSize(SlaTestType::kUdpJitter), 0);
  EncodeProbe(SlaTestType::kUdpJitter, 3, probe);
  probe.insert(probe.end(), {0x11, 0x22, 0x33, 0x44});
  EXPECT_EQ(ToHex(probe), ToHex(page_probe));

  const ReplyFields fields = {
      .sequence = 3, .counter = 2, .receive_stamp = 3'723'012'345'678, .ntp_receive = 0};
  EncodeReply(SlaTestType::kUdpJitter, fields, probe);
  EXPECT_EQ(ToHex(probe), ToHex(DocumentBytes(kPage, "reply")));
}

TEST(ControlProtocolPage, NamesEveryStatus) {
  std::vector<std::string> expected;
  for (std::uint16_t code = 0; code < 14; ++code) {
    expected.push_back("| " + std::to_string(code) + " | " +
                       ControlStatusToString(SlaControlStatus{code}) + " |");
  }
  std::vector<std::string> rows;
  bool inside = false;
  for (const std::string& line : test::DocumentLines(kPage)) {
    if (line.starts_with("#")) inside = line == "### Statuses";
    if (inside && line.starts_with("| ") && line.size() > 2 && line[2] >= '0' && line[2] <= '9') {
      rows.push_back(line);
    }
  }
  EXPECT_THAT(rows, testing::ElementsAreArray(expected));
}

}  // namespace
}  // namespace ipsla
