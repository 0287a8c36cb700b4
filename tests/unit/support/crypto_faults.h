// Failures of the cryptographic library on demand: the test program's own versions of the calls
// that the sender's digest functions make pass everything on to the library, unless the calling
// thread has asked for a failure.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_CRYPTO_FAULTS_H_
#define IPSLA_TESTS_UNIT_SUPPORT_CRYPTO_FAULTS_H_

#include <cstdint>
#include <vector>

namespace ipsla::test {

enum class CryptoCall {
  kNone,
  kRandBytes,
  kContextCreate,
  kDigestInit,
  kDigestUpdate,
  kDigestFinal,
  kSignInit,
  kSignFinal,
  kNewMacKey,
};

/// While it lives, `call` fails on this thread and queues two library errors, with the codes
/// kFirstError and kSecondError, in that order; errno becomes EIO.
class CryptoFault {
 public:
  static constexpr unsigned long kFirstError = 0x40000065;
  static constexpr unsigned long kSecondError = 0x40000066;

  explicit CryptoFault(CryptoCall call);
  ~CryptoFault();
  CryptoFault(const CryptoFault&) = delete;
  CryptoFault& operator=(const CryptoFault&) = delete;
};

/// While it lives, RAND_bytes gives these bytes on this thread.
class FixedRandomBytes {
 public:
  explicit FixedRandomBytes(std::vector<std::uint8_t> bytes);
  ~FixedRandomBytes();
  FixedRandomBytes(const FixedRandomBytes&) = delete;
  FixedRandomBytes& operator=(const FixedRandomBytes&) = delete;
};

/// Digest contexts that this thread has created and not yet destroyed through the calls above.
[[nodiscard]] int LiveDigestContexts();

/// The length of the key of this thread's last EVP_PKEY_new_mac_key, -1 before the first.
[[nodiscard]] int LastMacKeyLength();

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_CRYPTO_FAULTS_H_
