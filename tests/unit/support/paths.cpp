#include "support/paths.h"

namespace ipsla::test {

std::string SourcePath(const std::string& relative) {
  return std::string(IPSLA_SOURCE_DIR) + "/" + relative;
}

std::string LibraryPath(const std::string& name) {
  return std::string(IPSLA_LIBRARY_DIR) + "/" + name;
}

}  // namespace ipsla::test
