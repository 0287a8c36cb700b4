// A file with given content for the time of a test.

#ifndef IPSLA_TESTS_UNIT_CONFIG_SCRATCH_FILE_H_
#define IPSLA_TESTS_UNIT_CONFIG_SCRATCH_FILE_H_

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace ipsla::test {

class ScratchFile {
 public:
  explicit ScratchFile(const std::string& content) {
    const int fd = mkstemp(name_.data());
    if (fd < 0 ||
        write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
      throw std::runtime_error("no scratch file");
    }
    close(fd);
  }
  ~ScratchFile() { unlink(name_.c_str()); }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  [[nodiscard]] const std::string& Name() const { return name_; }

 private:
  std::string name_ = "/tmp/ipsla-unit-XXXXXX";
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_CONFIG_SCRATCH_FILE_H_
