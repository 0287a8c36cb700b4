// Which task is being created, for the last words of a daemon that this brings down.

#ifndef IPSLA_API_CREATION_NOTE_H_
#define IPSLA_API_CREATION_NOTE_H_

#include "config/task_config.h"

namespace ipsla {

/// Notes the task that the calling thread creates. The note is gone with this object, unless an
/// exception ends it.
class CreationNote {
 public:
  explicit CreationNote(const SlaTaskConfig& task);
  ~CreationNote();
  CreationNote(const CreationNote&) = delete;
  CreationNote& operator=(const CreationNote&) = delete;

 private:
  const int exceptions_;  // in flight when the creation began
};

/// Says on standard error and in the daemon's log which task the calling thread was creating when
/// the current exception was thrown, in which VRF, and what the exception says. Does nothing when
/// it was creating none. For a terminate handler.
void ReportFailedCreation();

}  // namespace ipsla

#endif  // IPSLA_API_CREATION_NOTE_H_
