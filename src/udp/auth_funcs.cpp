#include "udp/auth_funcs.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include <openssl/err.h>
#include <openssl/rand.h>

#include "log/log.h"
#include "log/priority_mutex.h"
#include "udp/wiped.h"

namespace ipsla {

namespace {

struct ContextDeleter {
  void operator()(EVP_MD_CTX* context) const {
    EVP_MD_CTX_destroy(context);
    // For libraries that clean up only when they are told to; with OpenSSL 1.1 and later it is an
    // empty macro.
    EVP_cleanup();
  }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, ContextDeleter>;

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using MacKey = std::unique_ptr<EVP_PKEY, KeyDeleter>;

// Held by who is in the cryptographic library. The library's own locks are read-write locks of the
// C library, which a thread waits for awake when their holder is between two steps. If the waiting
// thread has the higher real-time priority and the holder's CPU, both stay there for ever, and the
// daemon with them: its threads do differ in priority (BelowPacing).
PriorityMutex& LibraryMutex() {
  static PriorityMutex mutex;
  return mutex;
}

// A digest and how many of its bytes the digest function reported.
struct DigestBuffer {
  std::array<std::uint8_t, kDigestSize> bytes{};
  unsigned int length = 0;
};

bool HashWithKey(std::uint16_t id, const ControlMessageBytes& message, std::string_view key,
                 DigestBuffer* digest) {
  std::vector<std::uint8_t> data;
  data.reserve(message.size() + key.size());
  const WipedAtEnd wiped(data);
  data.assign(message.begin(), message.end());
  data.insert(data.end(), key.begin(), key.end());
  return GetHash(id, EVP_sha256(), data.data(), data.size(), digest->bytes.data(),
                 &digest->length) == 0;
}

MacKey MakeMacKey(std::string_view key) {
  const char* bytes = key.empty() ? "" : key.data();
  return MacKey(EVP_PKEY_new_mac_key(EVP_PKEY_HMAC, nullptr,
                                     reinterpret_cast<const unsigned char*>(bytes),
                                     static_cast<int>(key.size())));
}

}  // namespace

// In both digest functions each copy of a failure takes an error code of its own from the library's
// queue: kept-behaviours.md#dumps-differ-between-the-two-logs

int GetHash(std::uint16_t id, const EVP_MD* method, const std::uint8_t* data, std::size_t length,
            std::uint8_t* out, unsigned int* out_length) {
  if (method == nullptr || data == nullptr || length == 0 || out == nullptr ||
      out_length == nullptr) {
    LOG_DEBUG(id, "no args");
    return -1;
  }
  const DigestContext context(EVP_MD_CTX_create());
  if (context == nullptr) {
    LOG_DEBUG_FILE(id, "EVP_MD_CTX_create() failed: error 0x%lx", ERR_get_error());
    LOG_DEBUG_SYSTEM("EVP_MD_CTX_create() failed: error 0x%lx", ERR_get_error());
    return -1;
  }
  const char* failed = nullptr;
  if (EVP_DigestInit_ex(context.get(), method, nullptr) != 1) {
    failed = "EVP_DigestInit_ex";
  } else if (EVP_DigestUpdate(context.get(), data, length) != 1) {
    failed = "EVP_DigestUpdate";
  } else if (EVP_DigestFinal_ex(context.get(), out, out_length) != 1) {
    failed = "EVP_DigestFinal_ex";
  }
  if (failed == nullptr) return 0;
  LOG_DEBUG_FILE(id, "%s() failed: error 0x%lx", failed, ERR_get_error());
  LOG_DEBUG_SYSTEM("%s() failed: error 0x%lx", failed, ERR_get_error());
  return -1;
}

int GetHmac(std::uint16_t id, const EVP_MD* method, const std::uint8_t* data, std::size_t length,
            std::uint8_t* out, unsigned int* out_length, EVP_PKEY* key) {
  if (method == nullptr || data == nullptr || length == 0 || out == nullptr ||
      out_length == nullptr || key == nullptr) {
    LOG_DEBUG(id, "no args");
    return -1;
  }
  const DigestContext context(EVP_MD_CTX_create());
  if (context == nullptr) {
    LOG_DEBUG_FILE(id, "EVP_MD_CTX_create() failed: error 0x%lx", ERR_get_error());
    LOG_DEBUG_SYSTEM("EVP_MD_CTX_create() failed: error 0x%lx", ERR_get_error());
    return -1;
  }
  const char* failed = nullptr;
  if (EVP_DigestInit_ex(context.get(), method, nullptr) != 1) {
    failed = "EVP_DigestInit_ex";
  } else if (EVP_DigestSignInit(context.get(), nullptr, method, nullptr, key) != 1) {
    failed = "EVP_DigestSignInit";
  } else if (EVP_DigestUpdate(context.get(), data, length) != 1) {
    failed = "EVP_DigestSignUpdate";  // named after what it does in a signing context
  } else {
    std::size_t size = kDigestSize;  // OpenSSL 3 wants the room that is there
    const bool ok = EVP_DigestSignFinal(context.get(), out, &size) == 1;
    *out_length = ok ? static_cast<unsigned int>(size) : 0;
    if (!ok) failed = "EVP_DigestSignFinal";
  }
  if (failed == nullptr) return 0;
  LOG_DEBUG_FILE(id, "%s() failed: error 0x%lx", failed, ERR_get_error());
  LOG_DEBUG_SYSTEM("%s() failed: error 0x%lx", failed, ERR_get_error());
  return -1;
}

bool SignControlRequest(std::uint16_t id, SlaAuthAlgorithm algorithm, std::string_view key,
                        ControlPhaseMessage* request) {
  const PriorityLock lock(LibraryMutex());
  if (RAND_bytes(request->nonce.data(), static_cast<int>(request->nonce.size())) != 1) {
    LOG_DEBUG(id, "RAND_bytes() failed for test %d", id);
    return false;
  }
  request->digest.fill(0);
  const ControlMessageBytes message = EncodeControlMessage(*request);
  DigestBuffer digest;
  switch (algorithm) {
    case SlaAuthAlgorithm::kSha256:
      if (!HashWithKey(id, message, key, &digest)) {
        LOG_DEBUG(id, "GetHash() failed for test %d: %s", id, std::strerror(errno));
        return false;
      }
      break;
    case SlaAuthAlgorithm::kHmacSha256: {
      const MacKey mac_key = MakeMacKey(key);
      if (mac_key == nullptr) {
        LOG_DEBUG(id, "EVP_PKEY_new_mac_key() failed for %d", id);
        return false;
      }
      if (GetHmac(id, EVP_sha256(), message.data(), message.size(), digest.bytes.data(),
                  &digest.length, mac_key.get()) != 0) {
        LOG_DEBUG(id, "GetHmac() failed for %d: %s", id, std::strerror(errno));
        return false;
      }
      break;
    }
    default:
      LOG_DEBUG(id, "Unknown authentication algorithm on test %d", id);
      return false;
  }
  std::copy_n(digest.bytes.begin(), std::min<std::size_t>(digest.length, kDigestSize),
              request->digest.begin());
  return true;
}

}  // namespace ipsla
