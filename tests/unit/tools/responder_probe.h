// A probe as the sender sends it, for the tests of the responder.

#ifndef IPSLA_TESTS_UNIT_TOOLS_RESPONDER_PROBE_H_
#define IPSLA_TESTS_UNIT_TOOLS_RESPONDER_PROBE_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "udp/probe_message.h"

namespace ipsla::test {

inline std::vector<std::uint8_t> Probe(SlaTestType type, std::uint32_t sequence,
                                       std::size_t size = 64) {
  std::vector<std::uint8_t> probe(size, 0);
  EncodeProbe(type, sequence, probe);
  return probe;
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_TOOLS_RESPONDER_PROBE_H_
