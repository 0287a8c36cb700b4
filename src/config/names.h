// The numbers of the model and of the control protocol, and the words that stand for them in logs,
// dumps, replies and files. To add a control status, a test type or a probe state, begin here.
//
// Pure functions over values: no I/O, no globals, any thread.

#ifndef IPSLA_CONFIG_NAMES_H_
#define IPSLA_CONFIG_NAMES_H_

#include <cstdint>
#include <string>
#include <type_traits>

namespace ipsla {

/// An enumeration's number, in the type that it is stored and sent in.
template <typename Enumeration>
[[nodiscard]] constexpr std::underlying_type_t<Enumeration> NumberOf(Enumeration value) {
  return static_cast<std::underlying_type_t<Enumeration>>(value);
}

/// What a test measures, and with which probes.
enum class SlaTestType : std::int32_t {
  kNone = -1,
  kUdpEcho = 1,
  kUdpJitter = 2,
  kUdpJitterNtp = 3,
  kIcmpEcho = 4,
  kIcmpJitter = 5,
};

/// How control messages are authenticated.
enum class SlaAuthMode : std::uint8_t { kUndefined = 0, kNone = 1, kPassword = 2, kKeychain = 3 };

enum class SlaAuthAlgorithm : std::uint8_t { kUndefined = 0, kSha256 = 1, kHmacSha256 = 2 };

/// Status codes carried in control-phase messages.
enum class SlaControlStatus : std::uint16_t {
  kSuccessful = 0,
  kFail = 1,
  kAuthenticationFail = 2,
  kFormatError = 3,
  kRequestedPortIsBusy = 4,
  kUnsupportedProtocolVersion = 5,
  kInvalidStatus = 6,
  kInvalidLength = 7,
  kUnsupportedAddress = 8,
  kUnsupportedRole = 9,
  kUnsupportedAuthenticationMode = 10,
  kUnsupportedAuthenticationAlgorithm = 11,
  kUnsupportedOperationType = 12,
  kUnknownInternalError = 13,
};

/// Fields of the control message.
enum class CsldType : std::uint16_t { kAuthentication = 1, kMeasurement = 2 };
enum class AddressType : std::uint8_t { kIpv4 = 2, kIpv6 = 3 };
enum class Role : std::uint8_t { kResponder = 1, kSender = 2 };

/// Result of a run.
enum class RunResult : std::uint32_t { kSuccessful = 0, kFail = 1 };

/// State of one probe.
enum class SlaPacketState : std::uint8_t {
  kSent = 0,      ///< went out (or not yet), no reply accepted
  kReceived = 1,  ///< a reply was accepted
  kSkipped = 2,   ///< the reply was not usable
  kLossSd = 3,
  kLossDs = 4,
};

// Names. An unlisted value gives "undefined" ("Undefined" for priorities, "Undefined PHB" for
// DSCPs).
[[nodiscard]] std::string TestTypeToString(SlaTestType type);
[[nodiscard]] std::string AuthModeToString(SlaAuthMode mode);
[[nodiscard]] std::string AuthAlgorithmToString(SlaAuthAlgorithm algorithm);
[[nodiscard]] std::string ControlStatusToString(SlaControlStatus status);
[[nodiscard]] std::string CsldTypeToString(CsldType type);
[[nodiscard]] std::string AddressTypeToString(AddressType type);
[[nodiscard]] std::string RoleToString(Role role);
[[nodiscard]] std::string ResultToString(RunResult result);
[[nodiscard]] std::string BoolToString(bool value);
[[nodiscard]] std::string PacketStateToString(SlaPacketState state);
/// The name of an IEEE 802.1p priority.
[[nodiscard]] std::string CosToPriorityName(std::uint8_t cos);
/// The name of the per-hop behaviour that a DiffServ code point asks for.
[[nodiscard]] std::string DscpToPhbName(std::uint8_t dscp);

// Words of the configuration files, compared exactly.

/// kNone for an unknown word.
[[nodiscard]] SlaTestType TestTypeFromString(const std::string& word);
/// "no", "password", "keychain"; kUndefined for anything else.
[[nodiscard]] SlaAuthMode AuthModeFromString(const std::string& word);
/// "sha256", "hmac-sha256"; kUndefined for anything else.
[[nodiscard]] SlaAuthAlgorithm AuthAlgorithmFromString(const std::string& word);

/// True for the three types whose one-way latency and jitter are computed.
[[nodiscard]] bool IsJitterType(SlaTestType type);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_NAMES_H_
