// Examples of the documentation, to be replayed.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_DOCUMENT_H_
#define IPSLA_TESTS_UNIT_SUPPORT_DOCUMENT_H_

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/paths.h"

namespace ipsla::test {

/// The lines of a file of the source tree; a failure when there are none.
inline std::vector<std::string> DocumentLines(const std::string& path) {
  std::ifstream in(SourcePath(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  EXPECT_FALSE(lines.empty()) << path;
  return lines;
}

/// The bytes of the block that begins with "```hex NAME". A line is "OFFSET: digits  # comment", of
/// which offset and comment may be missing; an offset that is not where the line's bytes begin is a
/// failure.
inline std::vector<std::uint8_t> DocumentBytes(const std::string& path, const std::string& name) {
  std::vector<std::uint8_t> bytes;
  bool inside = false;
  bool found = false;
  for (std::string line : DocumentLines(path)) {
    if (line.starts_with("```")) {
      inside = line == "```hex " + name;
      found = found || inside;
      continue;
    }
    if (!inside) continue;
    line = line.substr(0, line.find('#'));
    if (const std::size_t colon = line.find(':'); colon != std::string::npos) {
      EXPECT_EQ(std::stoul(line.substr(0, colon)), bytes.size()) << path << ": " << line;
      line = line.substr(colon + 1);
    }
    const std::vector<std::uint8_t> more = FromHex(line);
    bytes.insert(bytes.end(), more.begin(), more.end());
  }
  EXPECT_TRUE(found) << path << " has no block " << name;
  return bytes;
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_DOCUMENT_H_
