// A first tasks file or keychain file to start from. Pure.

#ifndef IPSLA_TOOLS_CTL_TEMPLATE_H_
#define IPSLA_TOOLS_CTL_TEMPLATE_H_

#include <cstdint>
#include <optional>
#include <string>

#include "config/task_config.h"

namespace ipsla::ctl {

/// One task of a template.
struct TaskTemplate {
  SlaTestType type = SlaTestType::kNone;
  std::string source, destination;       ///< dotted IPv4 addresses
  std::string vrf{};                     ///< empty: none
  std::int32_t control_port = 50000;     ///< of the responder
  std::optional<std::int32_t> key_id{};  ///< of the keychain; none: no authentication
  // What is left out is chosen so that it suits the type.
  std::optional<std::int32_t> interval_ms{}, packets{}, period_s{};
};

/// A tasks file with this one task, which has id 1 and measures at once and for ever. The period,
/// unless given, is a minute or as long as the longest run needs.
[[nodiscard]] std::string TasksFileText(const TaskTemplate& task);

/// A keychain file with one key.
[[nodiscard]] std::string KeychainFileText(std::int32_t key_id, const std::string& key);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TEMPLATE_H_
