// Control-phase messages: decoding any bytes, encoding them again, signing and dumping them.

#include <algorithm>

#include "config/keychain.h"
#include "fuzz_target.h"
#include "udp/control_phase_message.h"
#include "udp/digest.h"
#include "udp/print_funcs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  const auto input = fuzz::Exactly(data, size);
  const ControlPhaseMessage message = DecodeControlMessage(input);
  const ControlMessageBytes encoded = EncodeControlMessage(message);
  const ControlMessageBytes again = EncodeControlMessage(DecodeControlMessage(encoded));
  fuzz::Require(encoded == again, "decode and encode agree");
  static_cast<void>(MessageDigest(message.auth_algorithm, encoded, "key"));
  const SlaAuthConfig auth{message.auth_mode, message.auth_algorithm, message.key_id, "key"};
  PrintCtlPhPkt(1, input.data(),
                static_cast<std::uint16_t>(std::min<std::size_t>(size, kControlMessageSize)), true,
                auth, {{1, "one"}});
  return 0;
}
