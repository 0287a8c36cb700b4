// Every truncation and every single-byte change of the UDP messages: what is read is what stands in
// the bytes that are there, and nothing else.

#include <gtest/gtest.h>

#include "log/log.h"
#include "support/bytes.h"
#include "support/golden_requests.h"
#include "support/mutations.h"
#include "support/recording_syslog.h"
#include "udp/control_phase_message.h"
#include "udp/print_funcs.h"
#include "udp/probe_message.h"

namespace ipsla {
namespace {

using test::BigEndianAt;
using ReceivedBytes = std::vector<std::uint8_t>;

void ExpectControlFields(const ReceivedBytes& bytes) {
  const ControlPhaseMessage message = DecodeControlMessage(bytes);
  const auto at = [&bytes](std::size_t offset, std::size_t size) {
    return BigEndianAt(bytes, offset, size);
  };
  ASSERT_EQ(message.version, at(0, 1));
  ASSERT_EQ(static_cast<std::uint64_t>(message.status), at(2, 2));
  ASSERT_EQ(message.sequence_number, at(4, 4));
  ASSERT_EQ(message.total_length, at(8, 4));
  ASSERT_EQ(static_cast<std::uint64_t>(message.auth_status), at(22, 2));
  ASSERT_EQ(static_cast<std::uint64_t>(message.auth_mode), at(28, 1));
  ASSERT_EQ(static_cast<std::uint64_t>(message.auth_algorithm), at(29, 1));
  ASSERT_EQ(static_cast<std::uint64_t>(message.measurement_status), at(82, 2));
  ASSERT_EQ(message.operation_type, at(90, 1));
  ASSERT_EQ(ntohl(message.measurement_sender_address.s_addr), at(128, 4));
  ASSERT_EQ(message.measurement_responder_port, at(166, 2));
  ASSERT_EQ(message.duration_ms, at(168, 4));
}

class ChangedControlMessageTest : public testing::TestWithParam<test::GoldenRequest> {
 protected:
  const ReceivedBytes whole_ = test::FromHex(GetParam().hex);
};

TEST_P(ChangedControlMessageTest, TruncatedFieldsReadAsZero) {
  test::ForEachTruncation(whole_, ExpectControlFields);
}

TEST_P(ChangedControlMessageTest, EachByteConcernsItsFieldOnly) {
  test::ForEachChange(whole_,
                      [](const ReceivedBytes& bytes, std::size_t) { ExpectControlFields(bytes); });
}

INSTANTIATE_TEST_SUITE_P(Requests, ChangedControlMessageTest,
                         testing::Values(test::kGoldenRequests[1], test::kGoldenRequests[4],
                                         test::kGoldenRequests[13]),
                         [](const auto& request) { return request.param.name; });

TEST(ChangedControlMessageDumpTest, EveryTruncationAndChangeCanBeDumped) {
  const SlaAuthConfig auth{SlaAuthMode::kKeychain, SlaAuthAlgorithm::kHmacSha256, 5, ""};
  const KeychainStorage keys{{5, "chain-key"}};
  std::size_t lines = 0;
  const auto dump = [&](const ReceivedBytes& bytes) {
    PrintCtlPhPkt(1, bytes.data(), static_cast<std::uint16_t>(bytes.size()), true, auth, keys);
    lines += test::TakeSyslogTexts().size();
  };
  const ReceivedBytes whole = test::FromHex(test::kGoldenRequests[13].hex);
  test::ForEachTruncation(whole, dump);
  for (const std::size_t offset : {0U, 2U, 20U, 28U, 29U, 30U, 80U, 82U, 88U, 89U, 90U, 166U}) {
    ReceivedBytes changed = whole;
    for (unsigned value = 0; value < 256; ++value) {
      changed[offset] = static_cast<std::uint8_t>(value);
      dump(changed);
    }
  }
  EXPECT_GT(lines, whole.size());
}

ReceivedBytes AnyReply() {
  ReceivedBytes reply(64);
  for (std::size_t i = 0; i < reply.size(); ++i) reply[i] = static_cast<std::uint8_t>(200 + i);
  return reply;
}

void ExpectReplyFields(const ReceivedBytes& bytes) {
  const ProbeReply reply = DecodeReply(bytes);
  ASSERT_EQ(reply.type, BigEndianAt(bytes, 0, 2));
  ASSERT_EQ(reply.sequence, BigEndianAt(bytes, 20, 4));
  ASSERT_EQ(reply.counter, BigEndianAt(bytes, 24, 4));
  ASSERT_EQ(reply.stamp, BigEndianAt(bytes, 12, 8));
  ASSERT_EQ(reply.ntp_value, BigEndianAt(bytes, 54, 2));
}

TEST(ChangedReplyTest, TruncatedFieldsReadAsZero) {
  test::ForEachTruncation(AnyReply(), ExpectReplyFields);
}

TEST(ChangedReplyTest, EachByteConcernsItsFieldOnly) {
  test::ForEachChange(AnyReply(),
                      [](const ReceivedBytes& bytes, std::size_t) { ExpectReplyFields(bytes); });
}

}  // namespace
}  // namespace ipsla
