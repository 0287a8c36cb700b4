// The random numbers of signed requests that have been taken, so that a recorded request opens
// nothing twice.

#ifndef IPSLA_TOOLS_RESPONDER_NONCE_MEMORY_H_
#define IPSLA_TOOLS_RESPONDER_NONCE_MEMORY_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>

#include "udp/control_phase_message.h"

namespace ipsla::responder {

/// Remembers the newest `capacity` nonces. Only who has the key can fill it: ask it about requests
/// whose digest is right.
class NonceMemory {
 public:
  /// As it stands in a request.
  using Nonce = std::array<std::uint8_t, kNonceSize>;

  /// Nonces remembered; the oldest goes first.
  static constexpr std::size_t kCapacity = 65536;

  explicit NonceMemory(std::size_t capacity = kCapacity) : capacity_(capacity) {}

  /// Remembers a nonce. False when it was remembered already. Throws std::bad_alloc, and is then as
  /// before.
  bool Remember(const Nonce& nonce);

 private:
  const std::size_t capacity_;
  std::set<Nonce> known_;
  std::deque<std::set<Nonce>::const_iterator> in_order_;  // the oldest first
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_NONCE_MEMORY_H_
