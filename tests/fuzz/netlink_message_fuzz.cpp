// Routing netlink datagrams.

#include "api/netlink_message.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  const auto input = fuzz::Exactly(data, size);
  const NetlinkMessage message = ParseNetlinkMessage(input);
  for (const auto& address : message.addresses) {
    fuzz::Require(!address.is_unspecified(), "no unspecified address");
  }
  return 0;
}
