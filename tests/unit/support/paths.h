// Where the source tree and the built libraries are. Only paths.cpp knows them at compile time, so
// that the other files compile to the same objects wherever the tree stands.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_PATHS_H_
#define IPSLA_TESTS_UNIT_SUPPORT_PATHS_H_

#include <string>

namespace ipsla::test {

/// A file of the source tree, by its path from the root ("docs/configuration.md").
[[nodiscard]] std::string SourcePath(const std::string& relative);

/// A library of this build, by its file name ("liblogsvc.so").
[[nodiscard]] std::string LibraryPath(const std::string& name);

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_PATHS_H_
