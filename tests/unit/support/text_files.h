// Whole text files, read and written in one call.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_TEXT_FILES_H_
#define IPSLA_TESTS_UNIT_SUPPORT_TEXT_FILES_H_

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace ipsla::test {

/// The bytes of a file; empty when there is none.
inline std::string ReadText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// Its lines without their newlines.
inline std::vector<std::string> ReadLines(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

inline void WriteText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_TEXT_FILES_H_
