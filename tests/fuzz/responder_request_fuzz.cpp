// Requests to the responder, from the datagram to the answer and the sessions that it opens. The
// input is a series of datagrams: a byte for the source and the time that passes, two for the
// length, and as many bytes. Signed requests get a right digest where the source byte says so,
// since no search finds one.

#include <algorithm>
#include <array>
#include <optional>
#include <span>

#include "fuzz_target.h"
#include "responder/control_desk.h"
#include "udp/digest.h"
#include "unit/tools/responder_fake_ports.h"

namespace {

using ipsla::fuzz::Require;

constexpr std::size_t kSessions = 16;
constexpr std::int64_t kSecond = 1'000'000'000;

void Sign(std::vector<std::uint8_t>* request, const ipsla::responder::AuthPolicy& policy) {
  if (request->size() < ipsla::kControlMessageSize) return;
  const auto message = ipsla::DecodeControlMessage(*request);
  const auto key = policy.KeyFor(message.auth_mode, message.key_id);
  if (!key) return;
  const auto whole = std::span(*request).first<ipsla::kControlMessageSize>();
  const auto digest = ipsla::MessageDigest(message.auth_algorithm, whole, *key);
  if (digest) std::ranges::copy(*digest, request->begin() + ipsla::kDigestOffset);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  using namespace ipsla::responder;
  AuthPolicy policy;
  policy.password = "abc";
  policy.keychain = KeychainStorage{{5, "chain-key"}};
  policy.allow_open = true;
  test::FakePorts ports;
  Report report([](const std::string&) {}, true);
  const SessionLimits limits = {
      .sessions = kSessions, .sessions_per_source = 9, .duration_ms = 60000, .idle = 5 * kSecond};
  ControlDesk desk(
      policy, [](in_addr address) { return (address.s_addr & 1U) == 0; }, limits, &ports, &report);
  std::int64_t now = 0;
  for (std::size_t at = 0; at + 3 <= size;) {
    const std::uint8_t control = data[at];
    const std::size_t wanted = data[at + 1] * std::size_t{256} + data[at + 2];
    at += 3;
    auto request = fuzz::Exactly(data + at, std::min(wanted, size - at));
    at += request.size();
    if ((control & 1U) != 0) Sign(&request, policy);
    now += (control >> 4U) * (kSecond / 4);
    const Endpoint source = {.address = control & 7U, .port = 1};
    const EncodedAnswer answer = desk.Handle(request, source, now);
    Require(answer.size <= request.size(), "an answer is no longer than its request");
    Require(desk.Sessions().Size() <= kSessions, "sessions are bounded");
    while (desk.EndOne(now)) {
    }
    Require(static_cast<std::size_t>(ports.Holds()) == desk.Sessions().Size(),
            "each session holds one port");
  }
  static_cast<void>(DescribeTotals(desk.Counts(), desk.Sessions()));
  desk.EndAll(now);
  Require(ports.Holds() == 0, "no port outlives its sessions");
  return 0;
}
