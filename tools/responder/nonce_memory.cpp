#include "responder/nonce_memory.h"

#include <new>

namespace ipsla::responder {

bool NonceMemory::Remember(const Nonce& nonce) {
  const auto [position, is_new] = known_.insert(nonce);
  if (!is_new) return false;
  try {
    in_order_.push_back(position);
  } catch (const std::bad_alloc&) {
    known_.erase(position);
    throw;
  }
  if (in_order_.size() > capacity_) {
    known_.erase(in_order_.front());
    in_order_.pop_front();
  }
  return true;
}

}  // namespace ipsla::responder
