// Memory that held a key and is to be no longer read by anybody.

#ifndef IPSLA_UDP_WIPED_H_
#define IPSLA_UDP_WIPED_H_

#include <openssl/crypto.h>

namespace ipsla {

/// Overwrites a text or a vector of bytes with zeros when it goes out of scope, so that a key does
/// not stay behind in freed memory. What `bytes` held before it last grew is not found.
template <typename Bytes>
class WipedAtEnd {
 public:
  explicit WipedAtEnd(Bytes& bytes) : bytes_(bytes) {}
  ~WipedAtEnd() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }
  WipedAtEnd(const WipedAtEnd&) = delete;
  WipedAtEnd& operator=(const WipedAtEnd&) = delete;

 private:
  Bytes& bytes_;
};

}  // namespace ipsla

#endif  // IPSLA_UDP_WIPED_H_
