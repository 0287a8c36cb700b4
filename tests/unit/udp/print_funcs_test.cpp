#include "udp/print_funcs.h"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/golden_requests.h"
#include "support/recording_syslog.h"
#include "udp/control_phase_message.h"

namespace ipsla {
namespace {

using test::FromHex;
using test::ReadLogFile;
using test::TakeSyslog;
using test::TakeSyslogTexts;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint16_t kPrintTask = 312;

std::vector<std::string> Lines(const std::vector<std::string>& messages) {
  std::vector<std::string> lines;
  for (const std::string& message : messages) {
    std::istringstream in(message);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
  }
  return lines;
}

std::vector<std::uint8_t> GoldenBytes(std::string_view name) {
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    if (golden.name == name) return FromHex(golden.hex);
  }
  ADD_FAILURE() << name;
  return std::vector<std::uint8_t>(kControlMessageSize, 0);
}

constexpr const char* kOpenHeader =
    " [Control phase request]\n"
    "   |- Command-Header\n"
    "   .  |- Version                   : #2\n"
    "   .  |- Status                    : successful (#0)\n"
    "   .  |- Sequence number           : 0\n"
    "   .  |- Total length              : 172 bytes\n"
    "   .  |- Sender timestamp          : 0\n"
    "   .  -\n"
    "   |- Authentication CSLD\n"
    "   .  |- Command                   : authentication CSLD (#1)\n"
    "   .  |- Status                    : successful (#0)\n"
    "   .  |- CSLD length               : 60 bytes\n"
    "   .  |- Mode                      : no authentication (#1)";

constexpr const char* kOpenMeasurement =
    "   .  |- Rand number               : 00000000000000000000000000000000\n"
    "   .  |- Authentication digest     : "
    "0000000000000000000000000000000000000000000000000000000000000000\n"
    "   .  -\n"
    "   |- Measurement CSLD\n"
    "   .  |- Command                   : measurement CSLD (#2)\n"
    "   .  |- Status                    : successful (#0)\n"
    "   .  |- CSLD length               : 92 bytes\n"
    "   .  |- Address type              : IPv4 (#2)\n"
    "   .  |- Role                      : responder (#1)\n"
    "   .  |- Operation type            : udp-jitter (#2)\n"
    "   .  |- Session ID                : #0\n"
    "   .  |- Control sender address    : 192.0.2.1:40001\n"
    "   .  |- Control responder address : 198.51.100.7\n"
    "   .  |- Measur. sender address    : 192.0.2.33:40002\n"
    "   .  |- Measur. responder address : 198.51.100.8:50010\n"
    "   .  |- Duration                  : 1270 ms\n"
    "   .  -\n"
    "   -";

class PrintCtlPhPktTest : public testing::Test {
 protected:
  void SetUp() override {
    test::FreshLogFile(kPrintTask);
    TakeSyslog();
  }

  static void Print(const std::vector<std::uint8_t>& bytes, const SlaAuthConfig& auth,
                    bool is_response = false) {
    PrintCtlPhPkt(kPrintTask, bytes.data(), static_cast<std::uint16_t>(bytes.size()), is_response,
                  auth, kKeychain);
  }

  static SlaAuthConfig Auth(SlaAuthMode mode) {
    SlaAuthConfig auth;
    auth.mode = mode;
    auth.key_id = 5;
    auth.key_string = "abc";
    return auth;
  }

  static const KeychainStorage kKeychain;
};

const KeychainStorage PrintCtlPhPktTest::kKeychain = {{5, "chain-key"}, {6, "other"}};

TEST_F(PrintCtlPhPktTest, PrintsARequestWithoutAuthenticationAndWithoutAKey) {
  Print(GoldenBytes("UdpJitterOpen"), Auth(SlaAuthMode::kNone));
  const std::vector<std::string> expected = {kOpenHeader, "   .  -", kOpenMeasurement};
  EXPECT_EQ(TakeSyslogTexts(), expected);
  EXPECT_EQ(ReadLogFile(kPrintTask), Lines(expected));
}

TEST_F(PrintCtlPhPktTest, ShowsTheKeyIdOfAPasswordTaskOnlyInTheSystemLog) {
  Print(GoldenBytes("UdpEchoPasswordHmac"), Auth(SlaAuthMode::kPassword));
  const std::vector<std::string> system = TakeSyslogTexts();
  ASSERT_EQ(system.size(), 5U);
  EXPECT_THAT(system[0], HasSubstr("|- Mode                      : password (#2)"));
  EXPECT_EQ(system[1], "   .  |- Algorithm                 : HMAC-SHA-256 (#2)\n   .  |- Key");
  EXPECT_EQ(system[2], "   .  .  |- ID                     : #0");
  EXPECT_EQ(system[3], "   .  .  |- Value                  : \"abc\"\n   .  .  -\n   .  -");
  EXPECT_THAT(system[4],
              testing::StartsWith(
                  "   .  |- Rand number               : a0a1a2a3a4a5a6a7a8a9aaabacadaeaf\n"
                  "   .  |- Authentication digest     : "
                  "82088f5d6713532eb49f3ff6d97770f71949acbc5d0b069ab51a1a42871a0e88\n   .  -\n"));
  EXPECT_EQ(ReadLogFile(kPrintTask), Lines({system[0], system[1], system[3], system[4]}));
}

TEST_F(PrintCtlPhPktTest, ShowsTheKeyIdOfAKeychainTaskInBothLogs) {
  Print(GoldenBytes("UdpJitterNtpKeychainSha256"), Auth(SlaAuthMode::kKeychain));
  const std::vector<std::string> system = TakeSyslogTexts();
  ASSERT_EQ(system.size(), 5U);
  EXPECT_THAT(system[0], HasSubstr("|- Mode                      : keychain (#3)"));
  EXPECT_EQ(system[1], "   .  |- Algorithm                 : SHA-256 (#1)\n   .  |- Key");
  EXPECT_EQ(system[2], "   .  .  |- ID                     : #5");
  EXPECT_EQ(system[3], "   .  .  |- Value                  : \"chain-key\"\n   .  .  -\n   .  -");
  EXPECT_THAT(system[4], HasSubstr("   .  |- Operation type            : udp-jitter-ntp (#3)\n"));
  EXPECT_EQ(ReadLogFile(kPrintTask), Lines(system));
}

TEST_F(PrintCtlPhPktTest, SaysWhichKeyIsMissing) {
  SlaAuthConfig auth = Auth(SlaAuthMode::kKeychain);
  auth.key_id = 77;
  Print(GoldenBytes("UdpJitterKeychainHmac"), auth);
  EXPECT_EQ(TakeSyslogTexts().at(3),
            "   .  .  |- Value                  : \"no key\"\n   .  .  -\n   .  -");
}

TEST_F(PrintCtlPhPktTest, ChoosesTheSecondBlockByTheTasksModeNotByTheMessages) {
  Print(GoldenBytes("UdpJitterOpen"), Auth(SlaAuthMode::kPassword));
  const std::vector<std::string> system = TakeSyslogTexts();
  ASSERT_EQ(system.size(), 5U);
  EXPECT_THAT(system[0], HasSubstr("|- Mode                      : no authentication (#1)"));
  EXPECT_EQ(system[1], "   .  |- Algorithm                 : undefined (#0)\n   .  |- Key");
  Print(GoldenBytes("UdpJitterPasswordHmac"), Auth(SlaAuthMode::kNone));
  const std::vector<std::string> open = TakeSyslogTexts();
  ASSERT_EQ(open.size(), 3U);
  EXPECT_EQ(open[1], "   .  -");
  EXPECT_THAT(open[0], HasSubstr("|- Mode                      : password (#2)"));
}

TEST_F(PrintCtlPhPktTest, NamesTheFirstRequestsEmptyNonceAndDigest) {
  std::vector<std::uint8_t> unsigned_request = GoldenBytes("UdpJitterPasswordSha256");
  std::fill_n(unsigned_request.begin() + 32, 48, std::uint8_t{0});
  Print(unsigned_request, Auth(SlaAuthMode::kPassword));
  EXPECT_EQ(TakeSyslogTexts().at(4), kOpenMeasurement);
}

TEST_F(PrintCtlPhPktTest, NamesEveryStatusOfAResponse) {
  struct Row {
    std::uint8_t code;
    const char* name;
  };
  constexpr Row kRows[] = {
      {0, "successful (#0)"}, {13, "unknown internal error (#13)"}, {14, "undefined (#14)"}};
  for (const Row& row : kRows) {
    std::vector<std::uint8_t> response = GoldenBytes("UdpJitterOpen");
    response[3] = response[23] = response[83] = row.code;
    Print(response, Auth(SlaAuthMode::kNone), true);
    const std::vector<std::string> system = TakeSyslogTexts();
    const std::string line = std::string("   .  |- Status                    : ") + row.name + "\n";
    EXPECT_THAT(system.at(0), testing::StartsWith(" [Control phase response]\n"));
    EXPECT_THAT(system[0], HasSubstr("Version                   : #2\n" + line));
    EXPECT_THAT(system[0], HasSubstr("authentication CSLD (#1)\n" + line));
    EXPECT_THAT(system.at(2), HasSubstr("measurement CSLD (#2)\n" + line));
  }
}

TEST_F(PrintCtlPhPktTest, PrintsNumbersOfFullWidthAndUndefinedNames) {
  Print(std::vector<std::uint8_t>(kControlMessageSize, 0xff), Auth(SlaAuthMode::kNone), true);
  const std::vector<std::string> system = TakeSyslogTexts();
  ASSERT_EQ(system.size(), 3U);
  EXPECT_EQ(system[0],
            " [Control phase response]\n"
            "   |- Command-Header\n"
            "   .  |- Version                   : #255\n"
            "   .  |- Status                    : undefined (#65535)\n"
            "   .  |- Sequence number           : 4294967295\n"
            "   .  |- Total length              : 4294967295 bytes\n"
            "   .  |- Sender timestamp          : 4294967295\n"
            "   .  -\n"
            "   |- Authentication CSLD\n"
            "   .  |- Command                   : undefined (#65535)\n"
            "   .  |- Status                    : undefined (#65535)\n"
            "   .  |- CSLD length               : 4294967295 bytes\n"
            "   .  |- Mode                      : undefined (#255)");
  EXPECT_THAT(system[2], HasSubstr("   .  |- Role                      : undefined (#255)\n"
                                   "   .  |- Operation type            : undefined (#255)\n"
                                   "   .  |- Session ID                : #4294967295\n"
                                   "   .  |- Control sender address    : 255.255.255.255:65535\n"));
}

TEST_F(PrintCtlPhPktTest, ReportsANullBuffer) {
  PrintCtlPhPkt(kPrintTask, nullptr, 172, false, Auth(SlaAuthMode::kNone), kKeychain);
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("no args"));
  EXPECT_THAT(ReadLogFile(kPrintTask), ElementsAre("no args"));
}

TEST_F(PrintCtlPhPktTest, RefusesLessThan24Bytes) {
  for (const std::size_t size : {0U, 1U, 23U}) {
    SetUp();
    std::vector<std::uint8_t> bytes = GoldenBytes("UdpJitterOpen");
    bytes.resize(size);
    bytes.reserve(1);  // never a null pointer
    Print(bytes, Auth(SlaAuthMode::kNone));
    EXPECT_THAT(TakeSyslogTexts(), ElementsAre("invalid buffer size")) << size;
    EXPECT_THAT(ReadLogFile(kPrintTask), ElementsAre("invalid buffer size")) << size;
  }
}

TEST_F(PrintCtlPhPktTest, PrintsTheWholeTreeFrom24BytesWithZerosBehind) {
  std::vector<std::uint8_t> bytes = GoldenBytes("UdpJitterOpen");
  bytes.resize(24);
  bytes.shrink_to_fit();
  Print(bytes, Auth(SlaAuthMode::kNone));
  const std::vector<std::string> system = TakeSyslogTexts();
  ASSERT_EQ(system.size(), 3U);
  EXPECT_THAT(system[0],
              HasSubstr("   .  |- Command                   : authentication CSLD (#1)\n"));
  EXPECT_THAT(system[0], HasSubstr("   .  |- CSLD length               : 0 bytes\n"
                                   "   .  |- Mode                      : undefined (#0)"));
  EXPECT_THAT(system[2], HasSubstr("   .  |- Control sender address    : 0.0.0.0:0\n"));
  EXPECT_THAT(system[2], HasSubstr("   .  |- Duration                  : 0 ms\n   .  -\n   -"));
}

TEST_F(PrintCtlPhPktTest, NamesItsSourceInTheSystemLog) {
  Print(GoldenBytes("UdpJitterOpen"), Auth(SlaAuthMode::kNone));
  for (const test::SyslogRecord& record : TakeSyslog()) {
    EXPECT_THAT(
        record.line,
        testing::MatchesRegex("%IP_SLA-D-DEBUG: print_funcs\\.cpp:[0-9]+:PrintCtlPhPkt\\(\\): .*"));
    EXPECT_EQ(record.severity, 7);
  }
}

}  // namespace
}  // namespace ipsla
