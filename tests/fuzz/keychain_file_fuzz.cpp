// The keychain file, read as the daemon reads it.

#include <unistd.h>

#include <cstdio>
#include <string>

#include "config/keychain.h"
#include "config/print_funcs.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  static const std::string kPath = "/tmp/keychain-fuzz-" + std::to_string(getpid());
  FILE* file = std::fopen(kPath.c_str(), "wb");
  if (file == nullptr) return 0;
  std::fwrite(data, 1, size, file);
  std::fclose(file);
  KeychainStorage storage;
  std::string fault;
  const int result = ParseKeychainConfig(kPath, &storage, &fault);
  std::remove(kPath.c_str());
  fuzz::Require(result == 0 || storage.empty(), "a failed read leaves no keys");
  PrintKeychain(storage);
  return 0;
}
