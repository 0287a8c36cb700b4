#include "udp/digest.h"

#include <algorithm>
#include <vector>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "udp/wiped.h"

namespace ipsla {

namespace {

std::optional<Digest> Sha256(std::span<const std::uint8_t> data) {
  Digest digest{};
  unsigned int length = 0;
  const int ok =
      EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_sha256(), nullptr);
  if (ok != 1 || length != digest.size()) return std::nullopt;
  return digest;
}

std::optional<Digest> HmacSha256(std::string_view key, std::span<const std::uint8_t> data) {
  Digest digest{};
  unsigned int length = 0;
  const char* key_bytes =
      key.empty() ? "" : key.data();  // a null key would mean "the key of last time"
  const auto* result = HMAC(EVP_sha256(), key_bytes, static_cast<int>(key.size()), data.data(),
                            data.size(), digest.data(), &length);
  if (result == nullptr || length != digest.size()) return std::nullopt;
  return digest;
}

}  // namespace

std::optional<Digest> MessageDigest(SlaAuthAlgorithm algorithm,
                                    std::span<const std::uint8_t, kControlMessageSize> message,
                                    std::string_view key) {
  std::vector<std::uint8_t> data;
  data.reserve(message.size() + key.size());
  const WipedAtEnd wiped(data);
  data.assign(message.begin(), message.end());
  std::fill_n(data.begin() + kDigestOffset, kDigestSize, std::uint8_t{0});
  switch (algorithm) {
    case SlaAuthAlgorithm::kSha256:
      data.insert(data.end(), key.begin(), key.end());
      return Sha256(data);
    case SlaAuthAlgorithm::kHmacSha256:
      return HmacSha256(key, data);
    default:
      return std::nullopt;
  }
}

std::string HexEncode(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const std::uint8_t byte : bytes) {
    text.push_back(kDigits[byte >> 4U]);
    text.push_back(kDigits[byte & 0x0FU]);
  }
  return text;
}

}  // namespace ipsla
