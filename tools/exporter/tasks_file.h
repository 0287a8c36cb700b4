// The daemon's tasks file, for what its API does not tell.

#ifndef IPSLA_TOOLS_EXPORTER_TASKS_FILE_H_
#define IPSLA_TOOLS_EXPORTER_TASKS_FILE_H_

#include <sys/stat.h>

#include <optional>
#include <string>

#include "client/task_plan.h"

namespace ipsla::exporter {

/// Threads: the one that parses JSON in this process.
class TasksFile {
 public:
  /// `filename` may be empty: no plans then.
  explicit TasksFile(std::string filename) : filename_(std::move(filename)) {}

  /// What the file says of each task; read again when it has changed. A file that cannot be read
  /// says nothing.
  [[nodiscard]] const client::TaskPlans& Plans();

 private:
  // Empty: there is none.
  const std::string filename_;
  std::optional<struct stat> seen_;  // the file whose plans these are
  // As last read.
  client::TaskPlans plans_;
};

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_TASKS_FILE_H_
