// Replays inputs without a fuzzer: every argument is a file or a directory of files. Fails when
// there is none.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz_target.h"

namespace {

void Replay(const std::filesystem::path& path, int* count) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>()};
  const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
  ++*count;
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      Replay(argv[i], &count);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      Replay(entry.path(), &count);
    }
  }
  std::printf("%s: %d inputs replayed\n", argv[0], count);
  return count > 0 ? 0 : 1;
}
