#include "support/crypto_faults.h"

#include <dlfcn.h>

#include <cerrno>
#include <type_traits>
#include <utility>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

namespace {

using ipsla::test::CryptoCall;

thread_local CryptoCall failing = CryptoCall::kNone;
thread_local std::vector<std::uint8_t> fixed_random;
thread_local int live_contexts = 0;
thread_local int last_mac_key_length = -1;

thread_local int depth = 0;  // > 0 while the library works: what it calls itself does not fail

bool Fails(CryptoCall call) {
  if (failing != call || depth > 0) return false;
  ERR_raise(ERR_LIB_USER, 0x65);
  ERR_raise(ERR_LIB_USER, 0x66);
  errno = EIO;
  return true;
}

// Calls the library's own version of a function that this file replaces.
template <typename Result, typename... Parameters>
Result Library(Result (*)(Parameters...), const char* name,
               std::type_identity_t<Parameters>... arguments) {
  auto* const function = reinterpret_cast<Result (*)(Parameters...)>(dlsym(RTLD_NEXT, name));
  struct Inside {
    Inside() { ++depth; }
    ~Inside() { --depth; }
  } const inside;
  return function(arguments...);
}

}  // namespace

extern "C" {

int RAND_bytes(unsigned char* buffer, int count) {
  if (Fails(CryptoCall::kRandBytes)) return 0;
  if (!fixed_random.empty()) {
    for (int i = 0; i < count; ++i) {
      buffer[i] = fixed_random[static_cast<std::size_t>(i) % fixed_random.size()];
    }
    return 1;
  }
  return Library(&RAND_bytes, "RAND_bytes", buffer, count);
}

EVP_MD_CTX* EVP_MD_CTX_new() {
  if (Fails(CryptoCall::kContextCreate)) return nullptr;
  if (depth == 0) ++live_contexts;
  return Library(&EVP_MD_CTX_new, "EVP_MD_CTX_new");
}

void EVP_MD_CTX_free(EVP_MD_CTX* context) {
  if (context != nullptr && depth == 0) --live_contexts;
  Library(&EVP_MD_CTX_free, "EVP_MD_CTX_free", context);
}

int EVP_DigestInit_ex(EVP_MD_CTX* context, const EVP_MD* method, ENGINE* engine) {
  if (Fails(CryptoCall::kDigestInit)) return 0;
  return Library(&EVP_DigestInit_ex, "EVP_DigestInit_ex", context, method, engine);
}

int EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, size_t length) {
  if (Fails(CryptoCall::kDigestUpdate)) return 0;
  return Library(&EVP_DigestUpdate, "EVP_DigestUpdate", context, data, length);
}

int EVP_DigestFinal_ex(EVP_MD_CTX* context, unsigned char* out, unsigned int* length) {
  if (Fails(CryptoCall::kDigestFinal)) return 0;
  return Library(&EVP_DigestFinal_ex, "EVP_DigestFinal_ex", context, out, length);
}

int EVP_DigestSignInit(EVP_MD_CTX* context, EVP_PKEY_CTX** key_context, const EVP_MD* method,
                       ENGINE* engine, EVP_PKEY* key) {
  if (Fails(CryptoCall::kSignInit)) return 0;
  return Library(&EVP_DigestSignInit, "EVP_DigestSignInit", context, key_context, method, engine,
                 key);
}

int EVP_DigestSignFinal(EVP_MD_CTX* context, unsigned char* out, size_t* length) {
  if (Fails(CryptoCall::kSignFinal)) return 0;
  return Library(&EVP_DigestSignFinal, "EVP_DigestSignFinal", context, out, length);
}

EVP_PKEY* EVP_PKEY_new_mac_key(int type, ENGINE* engine, const unsigned char* key, int length) {
  last_mac_key_length = length;
  if (Fails(CryptoCall::kNewMacKey)) return nullptr;
  return Library(&EVP_PKEY_new_mac_key, "EVP_PKEY_new_mac_key", type, engine, key, length);
}

}  // extern "C"

namespace ipsla::test {

CryptoFault::CryptoFault(CryptoCall call) {
  ERR_clear_error();
  failing = call;
}

CryptoFault::~CryptoFault() {
  failing = CryptoCall::kNone;
  ERR_clear_error();
}

FixedRandomBytes::FixedRandomBytes(std::vector<std::uint8_t> bytes) {
  fixed_random = std::move(bytes);
}

FixedRandomBytes::~FixedRandomBytes() {
  fixed_random.clear();
}

int LiveDigestContexts() {
  return live_contexts;
}

int LastMacKeyLength() {
  return last_mac_key_length;
}

}  // namespace ipsla::test
