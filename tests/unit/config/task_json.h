// A valid task and small edits of it.

#ifndef IPSLA_TESTS_UNIT_CONFIG_TASK_JSON_H_
#define IPSLA_TESTS_UNIT_CONFIG_TASK_JSON_H_

#include <string>
#include <vector>

#include "config/json_text.h"

namespace ipsla::test {

/// Sets one member, or removes it when `json` is empty.
struct Edit {
  std::string path;  ///< names joined by dots
  std::string json;  ///< its new value as JSON text
};

/// A udp-jitter task, id 7, that is accepted: mode password, both sources given as addresses, a run
/// of 2000 ms every 60 s.
std::string ValidTask();

/// A document as it is in `json`, which must be valid.
JsonDocument Json(const std::string& json);

/// Applies the edits, in order. The objects on the way to a member must exist.
JsonDocument Edited(const std::string& json, const std::vector<Edit>& edits);

/// An "src-address" or "dst-address" that makes inet_pton(3) fail with EAFNOSUPPORT in this test
/// program.
inline constexpr const char* kFailingAddress = "\"address whose conversion fails\"";

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_CONFIG_TASK_JSON_H_
