#include <arpa/inet.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "responder/request_check.h"
#include "support/bytes.h"
#include "support/golden_requests.h"
#include "udp/digest.h"

namespace ipsla::responder {
namespace {

using Status = SlaControlStatus;
using Verdict = CheckedRequest::Verdict;
using Bytes = std::vector<std::uint8_t>;

const IsOurAddress kEveryAddress = [](in_addr) { return true; };

Bytes Golden(std::string_view name) {
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    if (golden.name == name) return test::FromHex(golden.hex);
  }
  ADD_FAILURE() << name;
  return Bytes(kControlMessageSize, 0);
}

AuthPolicy PasswordPolicy(const std::string& key = "abc") {
  AuthPolicy policy;
  policy.password = key;
  return policy;
}

AuthPolicy KeychainPolicy(KeychainStorage keys = {{5, "chain-key"}}) {
  AuthPolicy policy;
  policy.keychain = std::move(keys);
  return policy;
}

// A request with some bytes replaced.
Bytes With(Bytes bytes, std::size_t offset, const char* hex) {
  const Bytes replacement = test::FromHex(hex);
  std::ranges::copy(replacement, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
  return bytes;
}

// The statuses of the answer: header, authentication, measurement.
struct Statuses {
  Status header, authentication, measurement;
  bool operator==(const Statuses&) const = default;
};

void PrintTo(const Statuses& statuses, std::ostream* out) {
  *out << ControlStatusToString(statuses.header) << " / "
       << ControlStatusToString(statuses.authentication) << " / "
       << ControlStatusToString(statuses.measurement);
}

Statuses StatusesOf(const CheckedRequest& request) {
  return {request.answer.status, request.answer.auth_status, request.answer.measurement_status};
}

Statuses Header(Status status) {
  return {status, Status::kSuccessful, Status::kSuccessful};
}
Statuses Authentication(Status status) {
  return {Status::kFail, status, Status::kSuccessful};
}
Statuses Measurement(Status status) {
  return {Status::kFail, Status::kSuccessful, status};
}

struct FaultRow {
  const char* what;
  std::size_t offset;
  const char* hex;
  Statuses expected;
};

void ExpectFaults(std::span<const FaultRow> rows, const Bytes& good, const AuthPolicy& policy) {
  ASSERT_EQ(CheckRequest(good, policy, kEveryAddress).verdict, Verdict::kAccepted);
  for (const FaultRow& row : rows) {
    const CheckedRequest checked =
        CheckRequest(With(good, row.offset, row.hex), policy, kEveryAddress);
    EXPECT_EQ(checked.verdict, Verdict::kRefused) << row.what;
    EXPECT_EQ(StatusesOf(checked), row.expected) << row.what;
  }
}

TEST(CheckRequest, AcceptsTheGoldenRequestsOfEveryTypeAndMode) {
  AuthPolicy policy = PasswordPolicy();
  policy.keychain = KeychainStorage{{5, "chain-key"}};
  policy.allow_open = true;
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    const CheckedRequest checked = CheckRequest(test::FromHex(golden.hex), policy, kEveryAddress);
    EXPECT_EQ(checked.verdict, Verdict::kAccepted) << golden.name;
    EXPECT_EQ(StatusesOf(checked), Header(Status::kSuccessful)) << golden.name;
    EXPECT_EQ(checked.key.value_or(""), golden.key) << golden.name;
  }
}

TEST(CheckRequest, AnswersFaultsOfTheHeaderThere) {
  const FaultRow rows[] = {
      {"version 1", 0, "01", Header(Status::kUnsupportedProtocolVersion)},
      {"version 3", 0, "03", Header(Status::kUnsupportedProtocolVersion)},
      {"status 1", 2, "0001", Header(Status::kInvalidStatus)},
      {"status 65535", 2, "ffff", Header(Status::kInvalidStatus)},
      {"total length 171", 8, "000000ab", Header(Status::kInvalidLength)},
      {"total length 0", 8, "00000000", Header(Status::kInvalidLength)},
      {"version before status", 0, "03000001", Header(Status::kUnsupportedProtocolVersion)},
  };
  ExpectFaults(rows, Golden("UdpJitterOpen"), {});
}

TEST(CheckRequest, AnswersFaultsOfTheAuthenticationBlockThere) {
  const FaultRow rows[] = {
      {"command 0", 20, "0000", Authentication(Status::kFormatError)},
      {"command 2", 20, "0002", Authentication(Status::kFormatError)},
      {"length 59", 24, "0000003b", Authentication(Status::kInvalidLength)},
      {"status 1", 22, "0001", Authentication(Status::kInvalidStatus)},
      {"mode 0", 28, "00", Authentication(Status::kUnsupportedAuthenticationMode)},
      {"mode 1", 28, "01", Authentication(Status::kUnsupportedAuthenticationMode)},
      {"mode 3", 28, "03", Authentication(Status::kUnsupportedAuthenticationMode)},
      {"mode 4", 28, "04", Authentication(Status::kUnsupportedAuthenticationMode)},
      {"algorithm 0", 29, "00", Authentication(Status::kUnsupportedAuthenticationAlgorithm)},
      {"algorithm 3", 29, "03", Authentication(Status::kUnsupportedAuthenticationAlgorithm)},
      {"the other algorithm", 29, "01", Authentication(Status::kAuthenticationFail)},
      {"nonce", 32, "00", Authentication(Status::kAuthenticationFail)},
      {"digest", 79, "00", Authentication(Status::kAuthenticationFail)},
      {"a byte that no field has", 16, "01", Authentication(Status::kAuthenticationFail)},
      {"duration", 168, "ff", Authentication(Status::kAuthenticationFail)},
  };
  ExpectFaults(rows, Golden("UdpJitterPasswordHmac"), PasswordPolicy());
}

TEST(CheckRequest, AnswersFaultsOfTheMeasurementBlockThere) {
  const FaultRow rows[] = {
      {"command 1", 80, "0001", Measurement(Status::kFormatError)},
      {"length 91", 84, "0000005b", Measurement(Status::kInvalidLength)},
      {"status 4", 82, "0004", Measurement(Status::kInvalidStatus)},
      {"session id", 92, "00000001", Measurement(Status::kFormatError)},
      {"address type 1", 88, "01", Measurement(Status::kUnsupportedAddress)},
      {"address type 3", 88, "03", Measurement(Status::kUnsupportedAddress)},
      {"role 0", 89, "00", Measurement(Status::kUnsupportedRole)},
      {"role 2", 89, "02", Measurement(Status::kUnsupportedRole)},
      {"type 0", 90, "00", Measurement(Status::kUnsupportedOperationType)},
      {"type 4", 90, "04", Measurement(Status::kUnsupportedOperationType)},
      {"sender address 0", 128, "00000000", Measurement(Status::kUnsupportedAddress)},
      {"sender address multicast", 128, "e0000001", Measurement(Status::kUnsupportedAddress)},
      {"sender address broadcast", 128, "ffffffff", Measurement(Status::kUnsupportedAddress)},
      {"sender port 0", 164, "0000", Measurement(Status::kFormatError)},
      {"control address 0", 112, "00000000", Measurement(Status::kUnsupportedAddress)},
      {"measurement address multicast", 144, "e0000001", Measurement(Status::kUnsupportedAddress)},
  };
  ExpectFaults(rows, Golden("UdpJitterOpen"), {});
}

TEST(CheckRequest, WantsBothResponderAddressesToBeOurs) {
  const Bytes request = Golden("UdpJitterOpen");
  for (const char* foreign : {"198.51.100.7", "198.51.100.8"}) {
    const in_addr not_ours = {inet_addr(foreign)};
    const CheckedRequest checked = CheckRequest(
        request, {}, [not_ours](in_addr address) { return address.s_addr != not_ours.s_addr; });
    EXPECT_EQ(StatusesOf(checked), Measurement(Status::kUnsupportedAddress)) << foreign;
  }
}

TEST(CheckRequest, SaysNothingAboutTheMeasurementToWhoHasNotShownTheKey) {
  const Bytes wrong_type = With(Golden("UdpJitterPasswordSha256"), 90, "09");
  EXPECT_EQ(StatusesOf(CheckRequest(wrong_type, PasswordPolicy(), kEveryAddress)),
            Authentication(Status::kAuthenticationFail));
}

TEST(CheckRequest, FindsKeysOfTheKeychainByTheirId) {
  const Bytes request = Golden("UdpEchoKeychainHmac");
  const auto statuses = [&request](KeychainStorage keys) {
    return StatusesOf(CheckRequest(request, KeychainPolicy(std::move(keys)), kEveryAddress));
  };
  EXPECT_EQ(statuses({{5, "chain-key"}}), Header(Status::kSuccessful));
  EXPECT_EQ(statuses({{5, "other"}}), Authentication(Status::kAuthenticationFail));
  EXPECT_EQ(statuses({{6, "chain-key"}}), Authentication(Status::kAuthenticationFail));
  EXPECT_EQ(statuses({}), Authentication(Status::kAuthenticationFail));
}

TEST(CheckRequest, ServesTheModesThatAreConfigured) {
  struct Row {
    const char* name;
    bool password, keychain, allow_open;
    const char* request;
    bool served;
  };
  constexpr Row kRows[] = {
      {"open by default", false, false, false, "UdpEchoOpen", true},
      {"no password known", false, false, false, "UdpEchoPasswordHmac", false},
      {"password wanted", true, false, false, "UdpEchoOpen", false},
      {"password", true, false, false, "UdpEchoPasswordHmac", true},
      {"keychain wanted", false, true, false, "UdpEchoOpen", false},
      {"password instead of keychain", false, true, false, "UdpEchoPasswordHmac", false},
      {"keychain", false, true, false, "UdpEchoKeychainSha256", true},
      {"open too", false, true, true, "UdpEchoOpen", true},
      {"keychain when open too", false, true, true, "UdpEchoKeychainSha256", true},
  };
  for (const Row& row : kRows) {
    AuthPolicy policy;
    if (row.password) policy.password = "abc";
    if (row.keychain) policy.keychain = KeychainStorage{{5, "chain-key"}};
    policy.allow_open = row.allow_open;
    const CheckedRequest checked = CheckRequest(Golden(row.request), policy, kEveryAddress);
    const Statuses expected = row.served ? Header(Status::kSuccessful)
                                         : Authentication(Status::kUnsupportedAuthenticationMode);
    EXPECT_EQ(StatusesOf(checked), expected) << row.name;
  }
}

TEST(CheckRequest, AnEmptyPasswordIsAKey) {
  const Bytes request = Golden("UdpJitterPasswordSha256");
  EXPECT_EQ(StatusesOf(CheckRequest(request, PasswordPolicy(""), kEveryAddress)),
            Authentication(Status::kAuthenticationFail));
  EXPECT_EQ(StatusesOf(CheckRequest(Golden("UdpJitterOpen"), PasswordPolicy(""), kEveryAddress)),
            Authentication(Status::kUnsupportedAuthenticationMode));
}

TEST(CheckRequest, AnswersEveryOtherLengthWithNoMoreThanCameIn) {
  Bytes request = Golden("UdpJitterPasswordHmac");
  request.resize(400, 0);
  for (std::size_t size = 0; size <= request.size(); ++size) {
    if (size == kControlMessageSize) continue;
    const CheckedRequest checked =
        CheckRequest(std::span(request).first(size), PasswordPolicy(), kEveryAddress);
    if (size < 4) {
      EXPECT_EQ(checked.verdict, Verdict::kIgnored) << size;
      continue;
    }
    EXPECT_EQ(checked.verdict, Verdict::kRefused) << size;
    EXPECT_EQ(StatusesOf(checked), Header(Status::kInvalidLength)) << size;
    EXPECT_EQ(EncodeAnswer(checked, size).size, std::min(size, kControlMessageSize)) << size;
  }
}

TEST(CheckRequest, TwoRespondersCannotKeepEachOtherBusy) {
  // Every answer, sent back to a responder as if it were a request, leads to silence.
  const Bytes good = Golden("UdpJitterPasswordHmac");
  Bytes short_request = good;
  short_request.resize(90);
  for (const Bytes& first :
       {good, short_request, With(good, 0, "07"), With(good, 20, "0009"), With(good, 90, "04"),
        With(good, 2, "0006"), With(good, 2, "0001"), With(good, 79, "00")}) {
    Bytes datagram = first;
    int answers = 0;
    for (; answers < 10; ++answers) {
      CheckedRequest checked = CheckRequest(datagram, PasswordPolicy(), kEveryAddress);
      if (checked.verdict == Verdict::kIgnored) break;
      if (checked.verdict == Verdict::kAccepted) checked.answer.session_id = 1;
      const EncodedAnswer answer = EncodeAnswer(checked, datagram.size());
      datagram.assign(answer.Bytes().begin(), answer.Bytes().end());
    }
    EXPECT_LE(answers, 3);
  }
}

TEST(EncodeAnswer, RepeatsTheRequestWithItsStatusesAndIsSigned) {
  const Bytes request = Golden("UdpJitterPasswordHmac");
  CheckedRequest checked = CheckRequest(request, PasswordPolicy(), kEveryAddress);
  checked.answer.session_id = 0x01020304;
  checked.answer.measurement_responder_port = 0x1234;
  const EncodedAnswer answer = EncodeAnswer(checked, request.size());
  ASSERT_EQ(answer.size, kControlMessageSize);
  Bytes expected = With(With(request, 92, "01020304"), 166, "1234");
  const auto digest = MessageDigest(SlaAuthAlgorithm::kHmacSha256,
                                    std::span(expected).first<kControlMessageSize>(), "abc");
  ASSERT_TRUE(digest.has_value());
  std::ranges::copy(*digest, expected.begin() + kDigestOffset);
  EXPECT_EQ(test::ToHex(answer.Bytes()), test::ToHex(expected));
}

TEST(EncodeAnswer, IsNotSignedForWhoHasNotShownTheKey) {
  const Bytes request = With(Golden("UdpJitterPasswordHmac"), 79, "00");
  const ControlMessageBytes answer =
      EncodeAnswer(CheckRequest(request, PasswordPolicy(), kEveryAddress), request.size()).bytes;
  EXPECT_TRUE(std::all_of(answer.begin() + 48, answer.begin() + 80,
                          [](std::uint8_t byte) { return byte == 0; }));
  EXPECT_EQ(answer[3], 1);
  EXPECT_EQ(answer[23], 2);
}

TEST(RefuseMeasurement, TakesBackAnAcceptedRequest) {
  CheckedRequest checked = CheckRequest(Golden("UdpJitterOpen"), {}, kEveryAddress);
  RefuseMeasurement(Status::kRequestedPortIsBusy, &checked);
  EXPECT_EQ(checked.verdict, Verdict::kRefused);
  EXPECT_EQ(StatusesOf(checked), Measurement(Status::kRequestedPortIsBusy));
}

TEST(RefuseAuthentication, TakesBackAnAcceptedRequest) {
  CheckedRequest checked = CheckRequest(Golden("UdpJitterOpen"), {}, kEveryAddress);
  RefuseAuthentication(Status::kAuthenticationFail, &checked);
  EXPECT_EQ(checked.verdict, Verdict::kRefused);
  EXPECT_EQ(StatusesOf(checked), Authentication(Status::kAuthenticationFail));
}

TEST(DescribeFault, NamesThePlaceAndTheStatus) {
  ControlPhaseMessage answer;
  answer.status = Status::kInvalidLength;
  EXPECT_EQ(DescribeFault(answer), "invalid length");
  answer.status = Status::kFail;
  answer.measurement_status = Status::kRequestedPortIsBusy;
  EXPECT_EQ(DescribeFault(answer), "measurement: requested port is busy");
  answer.auth_status = Status::kAuthenticationFail;
  EXPECT_EQ(DescribeFault(answer), "authentication: authentication fail");
}

}  // namespace
}  // namespace ipsla::responder
