// Packets as a raw ICMP socket delivers them.

#include "fuzz_target.h"
#include "sender/icmp_message.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  const auto input = fuzz::Exactly(data, size);
  const IcmpReply reply = DecodeIcmpReply(input);
  if (size <= kIpv4HeaderSize) {
    fuzz::Require(reply.identifier == 0 && reply.type == 0, "absent fields read as zero");
  }
  static_cast<void>(InternetChecksum(input));
  return 0;
}
