// A directory of a test's own below the private /run, removed with all its content at the end.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_TEMPORARY_DIRECTORY_H_
#define IPSLA_TESTS_UNIT_SUPPORT_TEMPORARY_DIRECTORY_H_

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace ipsla::test {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string path = "/run/test-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("mkdtemp");
    path_ = path;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  [[nodiscard]] std::filesystem::path Path() const { return path_; }
  [[nodiscard]] std::filesystem::path operator/(const std::string& name) const {
    return path_ / name;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_TEMPORARY_DIRECTORY_H_
