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
  /// Draws one that no other test has, as long as there is one; gives it back in the end.
  IcmpIdentifier();
  ~IcmpIdentifier();
  IcmpIdentifier(const IcmpIdentifier&) = delete;
  IcmpIdentifier& operator=(const IcmpIdentifier&) = delete;

  /// The same for life.
  [[nodiscard]] std::uint16_t Value() const { return value_; }

 private:
  // Without owned_ all 65536 were taken, and it is another test's as well.
  std::uint16_t value_ = 0;
  bool owned_ = false;
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_ICMP_IDENTIFIER_H_
