#include "udp/auth_funcs.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>

#include "support/bytes.h"
#include "support/crypto_faults.h"
#include "support/golden_requests.h"
#include "support/recording_syslog.h"
#include "support/udp_task.h"
#include "udp/digest.h"

namespace ipsla {
namespace {

using test::CryptoCall;
using test::CryptoFault;
using test::FromHex;
using test::ReadLogFile;
using test::TakeSyslog;
using test::TakeSyslogTexts;
using test::ToHex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint16_t kAuthTask = 311;

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyDeleter>;

Key MakeKey(std::string_view text) {
  return Key(EVP_PKEY_new_mac_key(EVP_PKEY_HMAC, nullptr,
                                  reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size())));
}

std::span<const std::uint8_t> BytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

class AuthFuncsTest : public testing::Test {
 protected:
  void SetUp() override {
    test::FreshLogFile(kAuthTask);
    TakeSyslog();
  }

  // Both copies of one line.
  static void ExpectLine(const std::string& text) { ExpectLines(text, text); }
  static void ExpectLines(const std::string& file, const std::string& system) {
    EXPECT_THAT(ReadLogFile(kAuthTask), ElementsAre(file));
    EXPECT_THAT(TakeSyslogTexts(), ElementsAre(system));
  }
  static void ExpectNoLine() {
    EXPECT_THAT(ReadLogFile(kAuthTask), IsEmpty());
    EXPECT_THAT(TakeSyslogTexts(), IsEmpty());
  }

  std::array<std::uint8_t, kDigestSize> out_{};
  unsigned int length_ = 99;
};

TEST_F(AuthFuncsTest, GetHashGivesSha256AndItsLength) {
  const auto data = BytesOf("abc");
  EXPECT_EQ(GetHash(kAuthTask, EVP_sha256(), data.data(), data.size(), out_.data(), &length_), 0);
  EXPECT_EQ(ToHex(out_), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(length_, 32U);
  ExpectNoLine();
}

TEST_F(AuthFuncsTest, GetHmacGivesHmacSha256AndItsLength) {
  const auto data = BytesOf("what do ya want for nothing?");
  const Key key = MakeKey("Jefe");
  EXPECT_EQ(
      GetHmac(kAuthTask, EVP_sha256(), data.data(), data.size(), out_.data(), &length_, key.get()),
      0);
  EXPECT_EQ(ToHex(out_), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(length_, 32U);
  ExpectNoLine();
}

TEST_F(AuthFuncsTest, GetHashRefusesEveryMissingArgument) {
  const auto data = BytesOf("abc");
  const EVP_MD* sha = EVP_sha256();
  EXPECT_EQ(GetHash(kAuthTask, nullptr, data.data(), data.size(), out_.data(), &length_), -1);
  EXPECT_EQ(GetHash(kAuthTask, sha, nullptr, data.size(), out_.data(), &length_), -1);
  EXPECT_EQ(GetHash(kAuthTask, sha, data.data(), 0, out_.data(), &length_), -1);
  EXPECT_EQ(GetHash(kAuthTask, sha, data.data(), data.size(), nullptr, &length_), -1);
  EXPECT_EQ(GetHash(kAuthTask, sha, data.data(), data.size(), out_.data(), nullptr), -1);
  EXPECT_THAT(ReadLogFile(kAuthTask),
              ElementsAre("no args", "no args", "no args", "no args", "no args"));
  EXPECT_THAT(TakeSyslogTexts(),
              ElementsAre("no args", "no args", "no args", "no args", "no args"));
}

TEST_F(AuthFuncsTest, GetHmacRefusesEveryMissingArgument) {
  const auto data = BytesOf("abc");
  const EVP_MD* sha = EVP_sha256();
  const Key key = MakeKey("k");
  EXPECT_EQ(GetHmac(kAuthTask, nullptr, data.data(), data.size(), out_.data(), &length_, key.get()),
            -1);
  EXPECT_EQ(GetHmac(kAuthTask, sha, nullptr, data.size(), out_.data(), &length_, key.get()), -1);
  EXPECT_EQ(GetHmac(kAuthTask, sha, data.data(), 0, out_.data(), &length_, key.get()), -1);
  EXPECT_EQ(GetHmac(kAuthTask, sha, data.data(), data.size(), nullptr, &length_, key.get()), -1);
  EXPECT_EQ(GetHmac(kAuthTask, sha, data.data(), data.size(), out_.data(), nullptr, key.get()), -1);
  EXPECT_EQ(GetHmac(kAuthTask, sha, data.data(), data.size(), out_.data(), &length_, nullptr), -1);
  EXPECT_THAT(ReadLogFile(kAuthTask),
              ElementsAre("no args", "no args", "no args", "no args", "no args", "no args"));
  EXPECT_EQ(TakeSyslogTexts().size(), 6U);
}

TEST_F(AuthFuncsTest, NamesSourceFileAndFunctionInTheSystemLog) {
  EXPECT_EQ(GetHash(kAuthTask, nullptr, nullptr, 0, nullptr, nullptr), -1);
  EXPECT_EQ(GetHmac(kAuthTask, nullptr, nullptr, 0, nullptr, nullptr, nullptr), -1);
  const auto records = TakeSyslog();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_THAT(records[0].line, HasSubstr("%IP_SLA-D-DEBUG: auth_funcs.cpp:"));
  EXPECT_THAT(records[0].line, HasSubstr(":GetHash(): no args"));
  EXPECT_THAT(records[1].line, HasSubstr(":GetHmac(): no args"));
  EXPECT_EQ(records[0].severity, 7);
}

struct FaultRow {
  CryptoCall call;
  const char* text;  // before the error code
};

TEST_F(AuthFuncsTest, GetHashLogsTheStepThatFailedWithOneErrorCodePerCopy) {
  constexpr FaultRow kRows[] = {
      {CryptoCall::kContextCreate, "EVP_MD_CTX_create() failed: error "},
      {CryptoCall::kDigestInit, "EVP_DigestInit_ex() failed: error "},
      {CryptoCall::kDigestUpdate, "EVP_DigestUpdate() failed: error "},
      {CryptoCall::kDigestFinal, "EVP_DigestFinal_ex() failed: error "},
  };
  const auto data = BytesOf("abc");
  for (const FaultRow& row : kRows) {
    SetUp();
    const CryptoFault fault(row.call);
    EXPECT_EQ(GetHash(kAuthTask, EVP_sha256(), data.data(), data.size(), out_.data(), &length_),
              -1);
    // The file copy shows the first queued error, the system-log copy the next one.
    ExpectLines(std::string(row.text) + "0x40000065", std::string(row.text) + "0x40000066");
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_EQ(test::LiveDigestContexts(), 0);
  }
}

TEST_F(AuthFuncsTest, GetHmacLogsTheStepThatFailedWithOneErrorCodePerCopy) {
  constexpr FaultRow kRows[] = {
      {CryptoCall::kContextCreate, "EVP_MD_CTX_create() failed: error "},
      {CryptoCall::kDigestInit, "EVP_DigestInit_ex() failed: error "},
      {CryptoCall::kSignInit, "EVP_DigestSignInit() failed: error "},
      {CryptoCall::kDigestUpdate, "EVP_DigestSignUpdate() failed: error "},
      {CryptoCall::kSignFinal, "EVP_DigestSignFinal() failed: error "},
  };
  const auto data = BytesOf("abc");
  const Key key = MakeKey("k");
  for (const FaultRow& row : kRows) {
    SetUp();
    const CryptoFault fault(row.call);
    EXPECT_EQ(GetHmac(kAuthTask, EVP_sha256(), data.data(), data.size(), out_.data(), &length_,
                      key.get()),
              -1);
    ExpectLines(std::string(row.text) + "0x40000065", std::string(row.text) + "0x40000066");
    EXPECT_EQ(test::LiveDigestContexts(), 0);
  }
}

TEST_F(AuthFuncsTest, SystemLogCopyShowsZeroWhenOneErrorIsQueued) {
  const auto data = BytesOf("abc");
  const CryptoFault fault(CryptoCall::kNone);
  // A key that cannot make a message digest: the library itself refuses it.
  const Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519"));
  ASSERT_NE(key, nullptr);
  ERR_clear_error();
  EXPECT_EQ(
      GetHmac(kAuthTask, EVP_sha256(), data.data(), data.size(), out_.data(), &length_, key.get()),
      -1);
  const auto file = ReadLogFile(kAuthTask);
  ASSERT_EQ(file.size(), 1U);
  EXPECT_THAT(file[0], testing::StartsWith("EVP_DigestSignInit() failed: error 0x"));
  EXPECT_NE(file[0], "EVP_DigestSignInit() failed: error 0x0");
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("EVP_DigestSignInit() failed: error 0x0"));
}

TEST_F(AuthFuncsTest, GetHmacGivesLengthZeroWhenTheLastStepFails) {
  const auto data = BytesOf("abc");
  const Key key = MakeKey("k");
  const CryptoFault fault(CryptoCall::kSignFinal);
  EXPECT_EQ(
      GetHmac(kAuthTask, EVP_sha256(), data.data(), data.size(), out_.data(), &length_, key.get()),
      -1);
  EXPECT_EQ(length_, 0U);
}

TEST_F(AuthFuncsTest, DestroysItsContextOnSuccess) {
  const auto data = BytesOf("abc");
  const Key key = MakeKey("k");
  EXPECT_EQ(GetHash(kAuthTask, EVP_sha256(), data.data(), data.size(), out_.data(), &length_), 0);
  EXPECT_EQ(
      GetHmac(kAuthTask, EVP_sha256(), data.data(), data.size(), out_.data(), &length_, key.get()),
      0);
  EXPECT_EQ(test::LiveDigestContexts(), 0);
}

ControlPhaseMessage GoldenUnsigned(const test::GoldenRequest& golden) {
  SlaTaskConfig task = test::UdpTask();
  task.sla_type = golden.type;
  task.auth.mode = golden.mode;
  task.auth.algorithm = golden.algorithm;
  task.auth.key_id = golden.key_id;
  return BuildControlRequest(task);
}

TEST_F(AuthFuncsTest, SignedRequestsAreTheGoldenBytesOfEveryTypeAndMode) {
  const test::FixedRandomBytes random(FromHex(test::kGoldenNonce));
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    if (golden.mode == SlaAuthMode::kNone) continue;
    SCOPED_TRACE(golden.name);
    ControlPhaseMessage request = GoldenUnsigned(golden);
    request.digest.fill(0x77);  // what the run before left behind
    EXPECT_TRUE(SignControlRequest(kAuthTask, golden.algorithm, golden.key, &request));
    EXPECT_EQ(ToHex(EncodeControlMessage(request)), golden.hex);
  }
  ExpectNoLine();
}

TEST_F(AuthFuncsTest, EverySignatureHasItsOwnNonceAndDigest) {
  for (const SlaAuthAlgorithm algorithm :
       {SlaAuthAlgorithm::kSha256, SlaAuthAlgorithm::kHmacSha256}) {
    ControlPhaseMessage first = BuildControlRequest(test::UdpTask());
    ControlPhaseMessage second = first;
    ASSERT_TRUE(SignControlRequest(kAuthTask, algorithm, "abc", &first));
    ASSERT_TRUE(SignControlRequest(kAuthTask, algorithm, "abc", &second));
    EXPECT_NE(first.nonce, second.nonce);
    EXPECT_NE(first.digest, second.digest);
    EXPECT_EQ(MessageDigest(algorithm, EncodeControlMessage(first), "abc"), first.digest);
  }
}

TEST_F(AuthFuncsTest, AnEmptyKeyLeavesTheMessageAloneUnderTheHash) {
  ControlPhaseMessage request = BuildControlRequest(test::UdpTask());
  ASSERT_TRUE(
      SignControlRequest(kAuthTask, SlaAuthAlgorithm::kSha256, std::string_view(), &request));
  EXPECT_EQ(MessageDigest(SlaAuthAlgorithm::kSha256, EncodeControlMessage(request), ""),
            request.digest);
  ExpectNoLine();
}

// Whether there is a MAC key of length 0 is the library's decision; some versions refuse it.
TEST_F(AuthFuncsTest, AnEmptyKeyIsOfferedToTheLibraryAsAKeyOfLengthZero) {
  ControlPhaseMessage request = BuildControlRequest(test::UdpTask());
  const bool accepted =
      SignControlRequest(kAuthTask, SlaAuthAlgorithm::kHmacSha256, std::string_view(), &request);
  EXPECT_EQ(test::LastMacKeyLength(), 0);
  if (accepted) {
    EXPECT_EQ(MessageDigest(SlaAuthAlgorithm::kHmacSha256, EncodeControlMessage(request), ""),
              request.digest);
    ExpectNoLine();
  } else {
    ExpectLine("EVP_PKEY_new_mac_key() failed for 311");
  }
}

TEST_F(AuthFuncsTest, FailedRandomBytesEndTheSigning) {
  const CryptoFault fault(CryptoCall::kRandBytes);
  ControlPhaseMessage request;
  EXPECT_FALSE(SignControlRequest(kAuthTask, SlaAuthAlgorithm::kSha256, "abc", &request));
  ExpectLine("RAND_bytes() failed for test 311");
}

TEST_F(AuthFuncsTest, FailedHashIsLoggedWithTheSystemErrorText) {
  const CryptoFault fault(CryptoCall::kDigestUpdate);
  ControlPhaseMessage request;
  request.digest.fill(0x77);
  EXPECT_FALSE(SignControlRequest(kAuthTask, SlaAuthAlgorithm::kSha256, "abc", &request));
  EXPECT_THAT(ReadLogFile(kAuthTask),
              ElementsAre("EVP_DigestUpdate() failed: error 0x40000065",
                          "GetHash() failed for test 311: Input/output error"));
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("EVP_DigestUpdate() failed: error 0x40000066",
                                             "GetHash() failed for test 311: Input/output error"));
  EXPECT_TRUE(std::ranges::all_of(request.digest, [](std::uint8_t byte) { return byte == 0; }));
}

TEST_F(AuthFuncsTest, FailedHmacIsLoggedWithTheSystemErrorText) {
  const CryptoFault fault(CryptoCall::kSignFinal);
  ControlPhaseMessage request;
  EXPECT_FALSE(SignControlRequest(kAuthTask, SlaAuthAlgorithm::kHmacSha256, "abc", &request));
  EXPECT_THAT(ReadLogFile(kAuthTask), ElementsAre("EVP_DigestSignFinal() failed: error 0x40000065",
                                                  "GetHmac() failed for 311: Input/output error"));
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("EVP_DigestSignFinal() failed: error 0x40000066",
                                             "GetHmac() failed for 311: Input/output error"));
}

TEST_F(AuthFuncsTest, FailedMacKeyEndsTheSigning) {
  const CryptoFault fault(CryptoCall::kNewMacKey);
  ControlPhaseMessage request;
  EXPECT_FALSE(SignControlRequest(kAuthTask, SlaAuthAlgorithm::kHmacSha256, "abc", &request));
  ExpectLine("EVP_PKEY_new_mac_key() failed for 311");
}

TEST_F(AuthFuncsTest, UnknownAlgorithmEndsTheSigningAfterTheNonce) {
  const test::FixedRandomBytes random(FromHex(test::kGoldenNonce));
  for (const int algorithm : {0, 3, 255}) {
    SetUp();
    ControlPhaseMessage request;
    request.digest.fill(0x77);
    EXPECT_FALSE(
        SignControlRequest(kAuthTask, static_cast<SlaAuthAlgorithm>(algorithm), "abc", &request));
    ExpectLine("Unknown authentication algorithm on test 311");
    EXPECT_EQ(ToHex(request.nonce), test::kGoldenNonce);
    EXPECT_TRUE(std::ranges::all_of(request.digest, [](std::uint8_t byte) { return byte == 0; }));
  }
}

}  // namespace
}  // namespace ipsla
