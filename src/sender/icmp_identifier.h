// The ICMP identifier of a test.

#ifndef IPSLA_SENDER_ICMP_IDENTIFIER_H_
#define IPSLA_SENDER_ICMP_IDENTIFIER_H_

#include <cstdint>

namespace ipsla {

/// A random identifier (rand(3)) that no other living test of this process has: every raw socket
/// sees every reply of its namespace, and two tests with one identifier and one destination would
/// count each other's replies. With more than 65536 tests alive identifiers repeat. Threads: any.
class IcmpIdentifier {
 public:
  IcmpIdentifier();
  ~IcmpIdentifier();
  IcmpIdentifier(const IcmpIdentifier&) = delete;
  IcmpIdentifier& operator=(const IcmpIdentifier&) = delete;

  [[nodiscard]] std::uint16_t Value() const { return value_; }

 private:
  std::uint16_t value_ = 0;
  bool owned_ = false;
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_ICMP_IDENTIFIER_H_
