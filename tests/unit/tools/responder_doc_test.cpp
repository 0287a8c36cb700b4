// Replays the worked example of docs/control-protocol.md on the responder's side.

#include <gtest/gtest.h>

#include "responder/request_check.h"
#include "responder/session.h"
#include "support/bytes.h"
#include "support/document.h"

namespace ipsla::responder {
namespace {

using test::DocumentBytes;
using test::ToHex;

constexpr const char* kPage = "docs/control-protocol.md";

TEST(ControlProtocolPage, AnswerIsWhatTheResponderSends) {
  const std::vector<std::uint8_t> request = DocumentBytes(kPage, "request");
  AuthPolicy policy;
  policy.password = "abc";
  CheckedRequest checked = CheckRequest(request, policy, [](in_addr) { return true; });
  ASSERT_EQ(checked.verdict, CheckedRequest::Verdict::kAccepted);
  checked.answer.session_id = 7;
  EXPECT_EQ(ToHex(EncodeAnswer(checked, request.size()).Bytes()),
            ToHex(DocumentBytes(kPage, "answer")));
}

TEST(ControlProtocolPage, ReplyIsWhatTheResponderSends) {
  Session session;
  session.type = SlaTestType::kUdpJitter;
  session.run.window.Note(1);
  session.run.statistics.distinct = 1;
  std::vector<std::uint8_t> probe = DocumentBytes(kPage, "probe");
  // 10:20:30.123456780 of some day.
  const timespec arrival = {.tv_sec = 86400 * 20000 + 37230, .tv_nsec = 123'456'780};
  ASSERT_TRUE(AnswerProbe(&session, arrival, probe));
  EXPECT_EQ(ToHex(probe), ToHex(DocumentBytes(kPage, "reply")));
}

}  // namespace
}  // namespace ipsla::responder
