#include "exporter/tasks_file.h"

#include "config/json_text.h"

namespace ipsla::exporter {
namespace {

bool IsSame(const struct stat& one, const struct stat& other) {
  return one.st_ino == other.st_ino && one.st_dev == other.st_dev && one.st_size == other.st_size &&
         one.st_mtim.tv_sec == other.st_mtim.tv_sec && one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

}  // namespace

const client::TaskPlans& TasksFile::Plans() {
  struct stat now {};
  if (filename_.empty() || stat(filename_.c_str(), &now) != 0 || !S_ISREG(now.st_mode)) {
    seen_.reset();
    plans_.clear();
  } else if (!seen_ || !IsSame(*seen_, now)) {
    const auto text = ReadWholeFile(filename_);
    plans_ =
        text ? client::ReadTaskPlans(*text).value_or(client::TaskPlans{}) : client::TaskPlans{};
    seen_ = now;
  }
  return plans_;
}

}  // namespace ipsla::exporter
