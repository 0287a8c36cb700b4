// What every fuzz target defines (libFuzzer's entry point), and the exact-size copy that makes
// overreads visible.

#ifndef IPSLA_TESTS_FUZZ_FUZZ_TARGET_H_
#define IPSLA_TESTS_FUZZ_FUZZ_TARGET_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

/// Runs the code under test on one input. Returns 0; a fault ends the process.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace ipsla::fuzz {

/// The input in a heap block of its exact size: a read beyond it is seen by the address sanitizer.
inline std::vector<std::uint8_t> Exactly(const std::uint8_t* data, std::size_t size) {
  return {data, data + size};
}

/// Ends the process when a property does not hold.
inline void Require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "property violated: %s\n", property);
  std::abort();
}

}  // namespace ipsla::fuzz

#endif  // IPSLA_TESTS_FUZZ_FUZZ_TARGET_H_
