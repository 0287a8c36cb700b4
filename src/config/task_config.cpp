#include "config/task_config.h"

#include <arpa/inet.h>

#include <array>
#include <cctype>
#include <cstddef>
#include <span>
#include <string_view>

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

bool SameAddress(const sockaddr_in& a, const sockaddr_in& b) {
  return a.sin_family == b.sin_family && a.sin_port == b.sin_port &&
         a.sin_addr.s_addr == b.sin_addr.s_addr;
}

}  // namespace

bool SlaEndpointConfig::operator==(const SlaEndpointConfig& other) const {
  return if_index == other.if_index && if_name == other.if_name && SameAddress(src, other.src) &&
         SameAddress(dst, other.dst) && src_port_any == other.src_port_any && vrf == other.vrf;
}

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
  if (dscp <= 4)
    return "Default Forwarding";  // 1 to 4 have no name of their own and count as 0; deliberate
  switch (dscp) {
    case 8:
      return "Class Selector 1";
    case 10:
      return "Assured Forwarding 11";
    case 12:
      return "Assured Forwarding 12";
    case 14:
      return "Assured Forwarding 13";
    case 16:
      return "Class Selector 2";
    case 18:
      return "Assured Forwarding 21";
    case 20:
      return "Assured Forwarding 22";
    case 22:
      return "Assured Forwarding 23";
    case 24:
      return "Class Selector 3";
    case 26:
      return "Assured Forwarding 31";
    case 28:
      return "Assured Forwarding 32";
    case 30:
      return "Assured Forwarding 33";
    case 32:
      return "Class Selector 4";
    case 34:
      return "Assured Forwarding 41";
    case 36:
      return "Assured Forwarding 42";
    case 38:
      return "Assured Forwarding 43";
    case 40:
      return "Class Selector 5";
    case 44:
      return "Voice Admit";
    case 46:
      return "Expedited Forwarding";
    case 48:
      return "Class Selector 6";
    case 56:
      return "Class Selector 7";
    default:
      return "Undefined PHB";
  }
}

std::string ScheduleTimeToString(const SlaSchedulerConfig& scheduler) {
  return std::to_string(scheduler.time);
}

std::string SourcePortToString(const SlaEndpointConfig& endpoint) {
  return endpoint.src_port_any ? "any" : std::to_string(ntohs(endpoint.src.sin_port));
}

std::string Ipv4ToString(in_addr address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address, text.data(),
            text.size());  // cannot fail: the family is known and the text fits
  return text.data();
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

std::int32_t MinPacketSize(SlaTestType type) {
  switch (type) {
    case SlaTestType::kUdpEcho:
      return 46;
    case SlaTestType::kUdpJitter:
      return 70;
    case SlaTestType::kUdpJitterNtp:
      return 98;
    case SlaTestType::kIcmpEcho:
      return 42;
    case SlaTestType::kIcmpJitter:
      return 54;
    default:
      return 34;
  }
}

std::int32_t PacketHeaderSize(SlaTestType type) {
  switch (type) {
    case SlaTestType::kUdpEcho:
    case SlaTestType::kUdpJitter:
    case SlaTestType::kUdpJitterNtp:
    case SlaTestType::kIcmpEcho:
      return 42;
    default:
      return 34;
  }
}

std::int64_t PlainRunMs(const SlaTaskConfig& task) {
  return std::int64_t{task.timeout} + std::int64_t{task.interval} * task.num_packets;
}

bool IsJitterType(SlaTestType type) {
  return type == SlaTestType::kUdpJitter || type == SlaTestType::kUdpJitterNtp ||
         type == SlaTestType::kIcmpJitter;
}

std::string HexKeyToBytes(const std::string& text) {
  constexpr std::string_view kPrefix = "0x";
  const std::size_t digits = text.starts_with(kPrefix) ? kPrefix.size() : 0;
  for (const char c : std::string_view(text).substr(digits)) {
    if (std::isxdigit(static_cast<unsigned char>(c)) == 0) return text;
  }
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const std::string piece = text.substr(i, 2);
    if (piece == kPrefix) continue;
    bytes.push_back(static_cast<char>(static_cast<unsigned char>(std::stoul(piece, nullptr, 16))));
  }
  return bytes;
}

}  // namespace ipsla
