#include "config/names.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

namespace ipsla {
namespace {

constexpr const char* kUndefined = "undefined";

using Words = std::span<const char* const>;

// The word at `value` minus `first`, or the fallback beyond both ends.
template <typename Enumeration>
std::string WordOf(Enumeration value, Words words, std::int64_t first) {
  const std::int64_t index = std::int64_t{NumberOf(value)} - first;
  if (index < 0 || index >= static_cast<std::int64_t>(words.size())) return kUndefined;
  return words[static_cast<std::size_t>(index)];
}

// The position of `word` in `words` plus 1, or 0: the numbering of the enumerations that the files
// name by words.
std::uint8_t NumberOf(const std::string& word, Words words) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (word == words[i]) return static_cast<std::uint8_t>(i + 1);
  }
  return 0;
}

constexpr std::array kTestTypes = {"udp-echo", "udp-jitter", "udp-jitter-ntp", "icmp-echo",
                                   "icmp-jitter"};
constexpr std::array kAuthModes = {"no authentication", "password", "keychain"};
constexpr std::array kAuthAlgorithms = {"SHA-256", "HMAC-SHA-256"};
constexpr std::array kControlStatuses = {
    "successful",
    "fail",
    "authentication fail",
    "format error",
    "requested port is busy",
    "unsupported protocol version",
    "invalid status",
    "invalid length",
    "unsupported address",
    "unsupported role",
    "unsupported authentication mode",
    "unsupported authentication algorithm",
    "unsupported operation type",
    "unknown internal error",
};
constexpr std::array kCsldTypes = {"authentication CSLD", "measurement CSLD"};
constexpr std::array kAddressTypes = {"IPv4", "IPv6"};
constexpr std::array kRoles = {"responder", "sender"};
constexpr std::array kResults = {"successful", "fail"};
constexpr std::array kPacketStates = {"sent", "received", "skipped", "loss sd", "loss ds"};
constexpr std::array kPriorities = {"Best Effort",     "Background", "Spare", "Excellent Effort",
                                    "Controlled Load", "Video",      "Voice", "Network Control"};

// The files' own words for modes and algorithms differ from the words shown.
constexpr std::array kAuthModeWords = {"no", "password", "keychain"};
constexpr std::array kAuthAlgorithmWords = {"sha256", "hmac-sha256"};

struct PhbName {
  std::uint8_t dscp;
  const char* name;
};
constexpr std::array kPhbNames = {
    PhbName{8, "Class Selector 1"},       PhbName{10, "Assured Forwarding 11"},
    PhbName{12, "Assured Forwarding 12"}, PhbName{14, "Assured Forwarding 13"},
    PhbName{16, "Class Selector 2"},      PhbName{18, "Assured Forwarding 21"},
    PhbName{20, "Assured Forwarding 22"}, PhbName{22, "Assured Forwarding 23"},
    PhbName{24, "Class Selector 3"},      PhbName{26, "Assured Forwarding 31"},
    PhbName{28, "Assured Forwarding 32"}, PhbName{30, "Assured Forwarding 33"},
    PhbName{32, "Class Selector 4"},      PhbName{34, "Assured Forwarding 41"},
    PhbName{36, "Assured Forwarding 42"}, PhbName{38, "Assured Forwarding 43"},
    PhbName{40, "Class Selector 5"},      PhbName{44, "Voice Admit"},
    PhbName{46, "Expedited Forwarding"},  PhbName{48, "Class Selector 6"},
    PhbName{56, "Class Selector 7"},
};

}  // namespace

std::string TestTypeToString(SlaTestType type) {
  return WordOf(type, kTestTypes, 1);
}

std::string AuthModeToString(SlaAuthMode mode) {
  return WordOf(mode, kAuthModes, 1);
}

std::string AuthAlgorithmToString(SlaAuthAlgorithm algorithm) {
  return WordOf(algorithm, kAuthAlgorithms, 1);
}

std::string ControlStatusToString(SlaControlStatus status) {
  return WordOf(status, kControlStatuses, 0);
}

std::string CsldTypeToString(CsldType type) {
  return WordOf(type, kCsldTypes, 1);
}

std::string AddressTypeToString(AddressType type) {
  return WordOf(type, kAddressTypes, 2);
}

std::string RoleToString(Role role) {
  return WordOf(role, kRoles, 1);
}

std::string ResultToString(RunResult result) {
  return WordOf(result, kResults, 0);
}

std::string BoolToString(bool value) {
  return value ? "true" : "false";
}

std::string PacketStateToString(SlaPacketState state) {
  return WordOf(state, kPacketStates, 0);
}

std::string CosToPriorityName(std::uint8_t cos) {
  return cos < kPriorities.size() ? kPriorities[cos] : "Undefined";
}

std::string DscpToPhbName(std::uint8_t dscp) {
  // kept-behaviours.md#dscp-1-to-4-are-called-default-forwarding
  if (dscp <= 4) return "Default Forwarding";
  const auto* const found = std::find_if(kPhbNames.begin(), kPhbNames.end(),
                                         [dscp](const PhbName& phb) { return phb.dscp == dscp; });
  return found == kPhbNames.end() ? "Undefined PHB" : found->name;
}

SlaTestType TestTypeFromString(const std::string& word) {
  const std::uint8_t number = NumberOf(word, kTestTypes);
  return number == 0 ? SlaTestType::kNone : static_cast<SlaTestType>(number);
}

SlaAuthMode AuthModeFromString(const std::string& word) {
  return static_cast<SlaAuthMode>(NumberOf(word, kAuthModeWords));
}

SlaAuthAlgorithm AuthAlgorithmFromString(const std::string& word) {
  return static_cast<SlaAuthAlgorithm>(NumberOf(word, kAuthAlgorithmWords));
}

bool IsJitterType(SlaTestType type) {
  return type == SlaTestType::kUdpJitter || type == SlaTestType::kUdpJitterNtp ||
         type == SlaTestType::kIcmpJitter;
}

}  // namespace ipsla
