#include "api/creation_note.h"

#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "log/log.h"

namespace ipsla {
namespace {

// Not the task itself: it may be gone when the note is read.
struct Noted {
  int task = 0;
  std::string vrf;
};

thread_local std::optional<Noted> noted;

std::string WhatIsThrown() {
  try {
    if (const auto thrown = std::current_exception()) std::rethrow_exception(thrown);
  } catch (const std::exception& exception) {
    return exception.what();
  } catch (...) {
    return "unknown error";
  }
  return "no error";
}

}  // namespace

CreationNote::CreationNote(const SlaTaskConfig& task) : exceptions_(std::uncaught_exceptions()) {
  noted = Noted{.task = task.sla_id, .vrf = task.measurement.vrf};
}

CreationNote::~CreationNote() {
  if (std::uncaught_exceptions() == exceptions_) noted.reset();
}

void ReportFailedCreation() {
  if (!noted) return;
  const std::string vrf = noted->vrf.empty() ? "the default VRF" : "VRF " + noted->vrf;
  const std::string reason = WhatIsThrown();
  std::fprintf(stderr, "task %d in %s cannot be created: %s\n", noted->task, vrf.c_str(),
               reason.c_str());
  LOG_DEBUG(0, "task %d in %s cannot be created: %s", noted->task, vrf.c_str(), reason.c_str());
}

}  // namespace ipsla
