// What a check says about a document's values, and how the inspectors of a task collect it.

#ifndef IPSLA_TOOLS_CTL_REMARK_H_
#define IPSLA_TOOLS_CTL_REMARK_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "config/task_parser.h"

struct cJSON;

namespace ipsla::ctl {

/// What is fatal keeps the daemon from running at all, a fault from using what it is about; a
/// warning is about what it takes and does otherwise than one may think.
enum class Severity : std::uint8_t { kFatal, kFault, kWarning };

/// One of them.
struct Remark {
  TaskFault fault;              ///< key, value and reason; the value may be left out
  const cJSON* item = nullptr;  ///< what it is about; null: the member that the key names
  bool at_name = false;         ///< about the member's name, not its value
  Severity severity = Severity::kWarning;
};

/// The member of `object` at a place like "scheduler.time", found as the daemon finds it; null when
/// it is not there.
[[nodiscard]] const cJSON* MemberAt(const cJSON* object, const std::string& key);

/// What is there of the way to that member: itself, or the last object before it.
[[nodiscard]] const cJSON* NearestMemberAt(const cJSON* object, const std::string& key);

/// Collects the remarks about one task.
class TaskRemarks {
 public:
  /// `task` is its JSON object, which must stay.
  explicit TaskRemarks(const cJSON* task) : task_(task) {}

  /// The member of that name; null when there is none.
  [[nodiscard]] const cJSON* Find(const std::string& key) const { return MemberAt(task_, key); }
  /// The text there; empty when there is none.
  [[nodiscard]] std::string Text(const std::string& key) const;

  /// A remark on the member `key` that does not keep the task from running.
  void Warn(const std::string& key, std::string reason);
  /// About what ends the daemon.
  void Fatal(const std::string& key, std::string reason);

  /// All remarks so far, which are forgotten here.
  [[nodiscard]] std::vector<Remark> Take() { return std::move(remarks_); }

 private:
  // Remarks are kept in their order.
  void Add(const std::string& key, std::string reason, Severity severity);

  // The task, and what was remarked on it.
  const cJSON* task_;
  std::vector<Remark> remarks_;
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_REMARK_H_
