#include "ctl/json_out.h"

#include <cjson/cJSON.h>

namespace ipsla::ctl {

std::string CompactJson(const cJSON* document) {
  const JsonText text(cJSON_PrintUnformatted(document));
  return text.get();
}

void AddIds(cJSON* object, const char* key, const std::vector<std::int32_t>& ids) {
  cJSON* array = cJSON_AddArrayToObject(object, key);
  for (const std::int32_t id : ids) {
    cJSON_AddItemToArray(array, cJSON_CreateNumber(id));
  }
}

std::string ErrorJson(const std::string& text) {
  const JsonDocument document(cJSON_CreateObject());
  cJSON_AddStringToObject(document.get(), "error", text.c_str());
  return CompactJson(document.get());
}

}  // namespace ipsla::ctl
