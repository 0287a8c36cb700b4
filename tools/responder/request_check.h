// The responder's judgement of a control request: pure, from the bytes received to the answer.
//
// Every fault is answered with its status code in the place where the sender looks for it, and no
// answer is longer than the datagram that caused it. Faults are looked for in this order; the first
// one found is answered.
//
//   header status          version not 2: 5; status not 0: 6; datagram or total length not 172: 7
//   authentication status  command not 1: 3; CSLD length not 60: 7; status not 0: 6; mode not
//   wanted here: 10;
//                          algorithm unknown: 11; key unknown or digest wrong: 2; digest cannot be
//                          computed: 13
//   measurement status     command not 2: 3; CSLD length not 92: 7; status not 0: 6; session id not
//   0: 3; address type
//                          not IPv4: 8; role not responder: 9; type not a UDP one: 12; sender
//                          address not unicast: 8; sender port 0: 3; responder address not ours: 8
//
// A fault in a block is answered with header status 1. Not answered at all: fewer than 4 bytes,
// which have no room for a status, and status 6 itself. Requests carry status 0 and session id 0,
// and answers carry at least one of them otherwise, so an answer sent back to a responder (by a
// forged source address) is answered with a fault, and that with status 6, and that with nothing:
// two responders cannot keep each other busy.

#ifndef IPSLA_TOOLS_RESPONDER_REQUEST_CHECK_H_
#define IPSLA_TOOLS_RESPONDER_REQUEST_CHECK_H_

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "config/keychain_rules.h"
#include "udp/control_phase_message.h"

namespace ipsla::responder {

/// Whom the responder serves. Without any key only requests without authentication.
struct AuthPolicy {
  std::optional<std::string> password;      ///< key bytes of mode "password"
  std::optional<KeychainStorage> keychain;  ///< keys of mode "keychain"
  bool allow_open = false;                  ///< also serve requests without authentication

  /// True when requests of this mode are served.
  [[nodiscard]] bool Wants(SlaAuthMode mode) const;
  /// The key for a request, nothing when there is none.
  [[nodiscard]] std::optional<std::string> KeyFor(SlaAuthMode mode, std::uint8_t key_id) const;
};

/// Tells whether this host answers on an address.
using IsOurAddress = std::function<bool(in_addr)>;

/// What a datagram to the control port was.
struct CheckedRequest {
  enum class Verdict { kAccepted, kRefused, kIgnored };

  Verdict verdict = Verdict::kIgnored;
  /// The answer: what was asked for, with statuses set; a request that was accepted still lacks
  /// session id and port.
  ControlPhaseMessage answer;
  /// The key the request was signed with; nothing for one without authentication and for most
  /// refused ones.
  std::optional<std::string> key;
};

/// Reads and judges a datagram. Nothing is remembered of it.
[[nodiscard]] CheckedRequest CheckRequest(std::span<const std::uint8_t> received,
                                          const AuthPolicy& policy,
                                          const IsOurAddress& is_our_address);

/// Makes an accepted request a refused one, with a measurement status.
void RefuseMeasurement(SlaControlStatus status, CheckedRequest* request);
/// The same with an authentication status.
void RefuseAuthentication(SlaControlStatus status, CheckedRequest* request);

/// The bytes of an answer; none when there is nothing to send. No memory beyond itself.
struct EncodedAnswer {
  ControlMessageBytes bytes{};
  std::size_t size = 0;

  [[nodiscard]] std::span<const std::uint8_t> Bytes() const { return std::span(bytes).first(size); }
};

/// The answer, at most `limit` bytes of it, signed with the request's key as the request was.
[[nodiscard]] EncodedAnswer EncodeAnswer(const CheckedRequest& request, std::size_t limit);

/// What is wrong, in words, for a refused request.
[[nodiscard]] std::string DescribeFault(const ControlPhaseMessage& answer);

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_REQUEST_CHECK_H_
