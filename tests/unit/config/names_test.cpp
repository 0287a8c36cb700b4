#include "config/names.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

namespace ipsla {
namespace {

// Compares a table with every value of 0..255, the listed ones and all others.
template <typename Value>
void ExpectNames(std::string (*name)(Value), const std::map<int, std::string>& words,
                 const std::string& fallback) {
  for (int value = 0; value <= 255; ++value) {
    const auto found = words.find(value);
    EXPECT_EQ(name(static_cast<Value>(value)), found == words.end() ? fallback : found->second)
        << value;
  }
}

TEST(NamesTest, NamesTestTypes) {
  ExpectNames(TestTypeToString,
              {{1, "udp-echo"},
               {2, "udp-jitter"},
               {3, "udp-jitter-ntp"},
               {4, "icmp-echo"},
               {5, "icmp-jitter"}},
              "undefined");
  EXPECT_EQ(TestTypeToString(static_cast<SlaTestType>(-1)), "undefined");
  EXPECT_EQ(TestTypeToString(static_cast<SlaTestType>(INT32_MIN)), "undefined");
  EXPECT_EQ(TestTypeToString(static_cast<SlaTestType>(INT32_MAX)), "undefined");
}

TEST(NamesTest, NamesAuthentication) {
  ExpectNames(AuthModeToString, {{1, "no authentication"}, {2, "password"}, {3, "keychain"}},
              "undefined");
  ExpectNames(AuthAlgorithmToString, {{1, "SHA-256"}, {2, "HMAC-SHA-256"}}, "undefined");
}

TEST(NamesTest, NamesControlStatuses) {
  ExpectNames(ControlStatusToString,
              {{0, "successful"},
               {1, "fail"},
               {2, "authentication fail"},
               {3, "format error"},
               {4, "requested port is busy"},
               {5, "unsupported protocol version"},
               {6, "invalid status"},
               {7, "invalid length"},
               {8, "unsupported address"},
               {9, "unsupported role"},
               {10, "unsupported authentication mode"},
               {11, "unsupported authentication algorithm"},
               {12, "unsupported operation type"},
               {13, "unknown internal error"}},
              "undefined");
  EXPECT_EQ(ControlStatusToString(static_cast<SlaControlStatus>(65535)), "undefined");
  EXPECT_EQ(ControlStatusToString(static_cast<SlaControlStatus>(256)), "undefined");
}

TEST(NamesTest, NamesMessageFields) {
  ExpectNames(CsldTypeToString, {{1, "authentication CSLD"}, {2, "measurement CSLD"}}, "undefined");
  ExpectNames(AddressTypeToString, {{2, "IPv4"}, {3, "IPv6"}}, "undefined");
  ExpectNames(RoleToString, {{1, "responder"}, {2, "sender"}}, "undefined");
}

TEST(NamesTest, NamesResultsAndStates) {
  ExpectNames(ResultToString, {{0, "successful"}, {1, "fail"}}, "undefined");
  ExpectNames(PacketStateToString,
              {{0, "sent"}, {1, "received"}, {2, "skipped"}, {3, "loss sd"}, {4, "loss ds"}},
              "undefined");
  EXPECT_EQ(BoolToString(true), "true");
  EXPECT_EQ(BoolToString(false), "false");
}

TEST(NamesTest, NamesPriorities) {
  ExpectNames(CosToPriorityName,
              {{0, "Best Effort"},
               {1, "Background"},
               {2, "Spare"},
               {3, "Excellent Effort"},
               {4, "Controlled Load"},
               {5, "Video"},
               {6, "Voice"},
               {7, "Network Control"}},
              "Undefined");
}

TEST(NamesTest, NamesPerHopBehavioursAndLeavesGapsUndefined) {
  ExpectNames(
      DscpToPhbName,
      {{0, "Default Forwarding"},     {1, "Default Forwarding"},     {2, "Default Forwarding"},
       {3, "Default Forwarding"},     {4, "Default Forwarding"},     {8, "Class Selector 1"},
       {10, "Assured Forwarding 11"}, {12, "Assured Forwarding 12"}, {14, "Assured Forwarding 13"},
       {16, "Class Selector 2"},      {18, "Assured Forwarding 21"}, {20, "Assured Forwarding 22"},
       {22, "Assured Forwarding 23"}, {24, "Class Selector 3"},      {26, "Assured Forwarding 31"},
       {28, "Assured Forwarding 32"}, {30, "Assured Forwarding 33"}, {32, "Class Selector 4"},
       {34, "Assured Forwarding 41"}, {36, "Assured Forwarding 42"}, {38, "Assured Forwarding 43"},
       {40, "Class Selector 5"},      {44, "Voice Admit"},           {46, "Expedited Forwarding"},
       {48, "Class Selector 6"},      {56, "Class Selector 7"}},
      "Undefined PHB");
}

TEST(NamesTest, KnowsTheWordsOfTheFilesAndNoOthers) {
  const std::map<std::string, int> types = {
      {"udp-echo", 1},    {"udp-jitter", 2},  {"udp-jitter-ntp", 3}, {"icmp-echo", 4},
      {"icmp-jitter", 5}, {"", -1},           {"UDP-echo", -1},      {"udp-echo ", -1},
      {"undefined", -1},  {"udp-jitter-", -1}};
  for (const auto& [word, type] : types) {
    EXPECT_EQ(static_cast<int>(TestTypeFromString(word)), type) << word;
  }
  const std::map<std::string, int> modes = {{"no", 1},  {"password", 2}, {"keychain", 3},
                                            {"", 0},    {"No", 0},       {"no authentication", 0},
                                            {"none", 0}};
  for (const auto& [word, mode] : modes) {
    EXPECT_EQ(static_cast<int>(AuthModeFromString(word)), mode) << word;
  }
  const std::map<std::string, int> algorithms = {{"sha256", 1},  {"hmac-sha256", 2},  {"", 0},
                                                 {"SHA-256", 0}, {"HMAC-SHA-256", 0}, {"md5", 0}};
  for (const auto& [word, number] : algorithms) {
    EXPECT_EQ(static_cast<int>(AuthAlgorithmFromString(word)), number) << word;
  }
}

}  // namespace
}  // namespace ipsla
