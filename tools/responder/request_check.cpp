#include "responder/request_check.h"

#include <algorithm>

#include <openssl/crypto.h>

#include "udp/digest.h"

namespace ipsla::responder {

namespace {

using Status = SlaControlStatus;
using Verdict = CheckedRequest::Verdict;

constexpr std::size_t kSmallestAnswer = 4;  // version and status

bool IsUnicast(in_addr address) {
  const std::uint32_t host_order = ntohl(address.s_addr);
  const std::uint32_t first = host_order >> 24U;
  return first != 0 && first < 224;
}

bool IsUdpType(std::uint8_t operation_type) {
  return operation_type >= 1 && operation_type <= 3;
}

Status CheckHeader(std::size_t received, const ControlPhaseMessage& request) {
  if (request.version != kControlProtocolVersion) return Status::kUnsupportedProtocolVersion;
  if (request.status != Status::kSuccessful) return Status::kInvalidStatus;
  if (received != kControlMessageSize || request.total_length != kControlMessageSize) {
    return Status::kInvalidLength;
  }
  return Status::kSuccessful;
}

Status CheckDigest(std::span<const std::uint8_t, kControlMessageSize> received,
                   const ControlPhaseMessage& request, const std::string& key) {
  const auto expected = MessageDigest(request.auth_algorithm, received, key);
  if (!expected) return Status::kUnknownInternalError;
  const bool equal = CRYPTO_memcmp(expected->data(), request.digest.data(), kDigestSize) == 0;
  return equal ? Status::kSuccessful : Status::kAuthenticationFail;
}

Status CheckAuthentication(std::span<const std::uint8_t, kControlMessageSize> received,
                           const ControlPhaseMessage& request, const AuthPolicy& policy,
                           std::optional<std::string>* used_key) {
  if (request.auth_command != CsldType::kAuthentication) return Status::kFormatError;
  if (request.auth_length != kAuthenticationCsldLength) return Status::kInvalidLength;
  if (request.auth_status != Status::kSuccessful) return Status::kInvalidStatus;
  if (!policy.Wants(request.auth_mode)) return Status::kUnsupportedAuthenticationMode;
  if (request.auth_mode == SlaAuthMode::kNone) return Status::kSuccessful;
  if (request.auth_algorithm != SlaAuthAlgorithm::kSha256 &&
      request.auth_algorithm != SlaAuthAlgorithm::kHmacSha256) {
    return Status::kUnsupportedAuthenticationAlgorithm;
  }
  const std::optional<std::string> key = policy.KeyFor(request.auth_mode, request.key_id);
  if (!key) return Status::kAuthenticationFail;
  const Status status = CheckDigest(received, request, *key);
  // Only who has shown the key gets an answer signed with it.
  if (status == Status::kSuccessful) *used_key = key;
  return status;
}

Status CheckMeasurement(const ControlPhaseMessage& request, const IsOurAddress& is_our_address) {
  if (request.measurement_command != CsldType::kMeasurement) return Status::kFormatError;
  if (request.measurement_length != kMeasurementCsldLength) return Status::kInvalidLength;
  if (request.measurement_status != Status::kSuccessful) return Status::kInvalidStatus;
  if (request.session_id != 0) return Status::kFormatError;
  if (request.address_type != AddressType::kIpv4) return Status::kUnsupportedAddress;
  if (request.role != Role::kResponder) return Status::kUnsupportedRole;
  if (!IsUdpType(request.operation_type)) return Status::kUnsupportedOperationType;
  if (!IsUnicast(request.measurement_sender_address)) return Status::kUnsupportedAddress;
  if (request.measurement_sender_port == 0) return Status::kFormatError;
  for (const in_addr address :
       {request.control_responder_address, request.measurement_responder_address}) {
    if (!IsUnicast(address) || !is_our_address(address)) return Status::kUnsupportedAddress;
  }
  return Status::kSuccessful;
}

// The request turned into an answer without faults.
ControlPhaseMessage AnswerTo(const ControlPhaseMessage& request) {
  const ControlPhaseMessage constants;
  ControlPhaseMessage answer = request;
  answer.version = constants.version;
  answer.status = Status::kSuccessful;
  answer.total_length = constants.total_length;
  answer.auth_command = constants.auth_command;
  answer.auth_status = Status::kSuccessful;
  answer.auth_length = constants.auth_length;
  answer.digest = constants.digest;
  answer.measurement_command = constants.measurement_command;
  answer.measurement_status = Status::kSuccessful;
  answer.measurement_length = constants.measurement_length;
  answer.session_id = 0;
  return answer;
}

}  // namespace

bool AuthPolicy::Wants(SlaAuthMode mode) const {
  switch (mode) {
    case SlaAuthMode::kNone:
      return allow_open || (!password && !keychain);
    case SlaAuthMode::kPassword:
      return password.has_value();
    case SlaAuthMode::kKeychain:
      return keychain.has_value();
    default:
      return false;
  }
}

std::optional<std::string> AuthPolicy::KeyFor(SlaAuthMode mode, std::uint8_t key_id) const {
  if (mode == SlaAuthMode::kPassword) return password;
  if (mode != SlaAuthMode::kKeychain || !keychain) return std::nullopt;
  const auto found = keychain->find(key_id);
  if (found == keychain->end()) return std::nullopt;
  return found->second;
}

CheckedRequest CheckRequest(std::span<const std::uint8_t> received, const AuthPolicy& policy,
                            const IsOurAddress& is_our_address) {
  CheckedRequest result;
  if (received.size() < kSmallestAnswer) return result;
  const ControlPhaseMessage request = DecodeControlMessage(received);
  if (request.status == Status::kInvalidStatus) return result;

  result.answer = AnswerTo(request);
  result.verdict = Verdict::kRefused;
  result.answer.status = CheckHeader(received.size(), request);
  if (result.answer.status != Status::kSuccessful) return result;

  const auto whole = received.first<kControlMessageSize>();
  result.answer.auth_status = CheckAuthentication(whole, request, policy, &result.key);
  if (result.answer.auth_status == Status::kSuccessful) {
    result.answer.measurement_status = CheckMeasurement(request, is_our_address);
    if (result.answer.measurement_status == Status::kSuccessful) {
      result.verdict = Verdict::kAccepted;
      return result;
    }
  }
  result.answer.status = Status::kFail;
  return result;
}

void RefuseMeasurement(SlaControlStatus status, CheckedRequest* request) {
  request->verdict = Verdict::kRefused;
  request->answer.status = Status::kFail;
  request->answer.measurement_status = status;
  request->answer.session_id = 0;
}

void RefuseAuthentication(SlaControlStatus status, CheckedRequest* request) {
  request->verdict = Verdict::kRefused;
  request->answer.status = Status::kFail;
  request->answer.auth_status = status;
  request->answer.session_id = 0;
}

EncodedAnswer EncodeAnswer(const CheckedRequest& request, std::size_t limit) {
  EncodedAnswer answer = {.bytes = EncodeControlMessage(request.answer),
                          .size = std::min(limit, kControlMessageSize)};
  if (request.key) {
    const auto digest = MessageDigest(request.answer.auth_algorithm, answer.bytes, *request.key);
    if (digest) std::ranges::copy(*digest, answer.bytes.begin() + kDigestOffset);
  }
  return answer;
}

std::string DescribeFault(const ControlPhaseMessage& answer) {
  if (answer.status != Status::kFail) return ControlStatusToString(answer.status);
  if (answer.auth_status != Status::kSuccessful) {
    return "authentication: " + ControlStatusToString(answer.auth_status);
  }
  return "measurement: " + ControlStatusToString(answer.measurement_status);
}

}  // namespace ipsla::responder
