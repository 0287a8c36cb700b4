// Building the JSON that ctl prints.

#ifndef IPSLA_TOOLS_CTL_JSON_OUT_H_
#define IPSLA_TOOLS_CTL_JSON_OUT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "config/json_text.h"

namespace ipsla::ctl {

/// One compact line.
[[nodiscard]] std::string CompactJson(const cJSON* document);

/// Adds `key`: [ids] to an object.
void AddIds(cJSON* object, const char* key, const std::vector<std::int32_t>& ids);

/// {"error": text}
[[nodiscard]] std::string ErrorJson(const std::string& text);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_JSON_OUT_H_
