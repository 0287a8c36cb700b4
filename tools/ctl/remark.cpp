#include "ctl/remark.h"

#include <cjson/cJSON.h>

#include "config/json_text.h"

namespace ipsla::ctl {

const cJSON* MemberAt(const cJSON* object, const std::string& key) {
  const std::size_t dot = key.rfind('.');
  if (dot == std::string::npos) {
    return cJSON_GetObjectItem(object, key.c_str());
  }
  return cJSON_GetObjectItem(MemberAt(object, key.substr(0, dot)), key.substr(dot + 1).c_str());
}

const cJSON* NearestMemberAt(const cJSON* object, const std::string& key) {
  if (const cJSON* member = MemberAt(object, key)) {
    return member;
  }
  const std::size_t dot = key.rfind('.');
  return dot == std::string::npos ? object : NearestMemberAt(object, key.substr(0, dot));
}

std::string TaskRemarks::Text(const std::string& key) const {
  const char* text = cJSON_GetStringValue(Find(key));
  return text == nullptr ? "" : text;
}

void TaskRemarks::Warn(const std::string& key, std::string reason) {
  Add(key, std::move(reason), Severity::kWarning);
}

void TaskRemarks::Fatal(const std::string& key, std::string reason) {
  Add(key, std::move(reason), Severity::kFatal);
}

void TaskRemarks::Add(const std::string& key, std::string reason, Severity severity) {
  const cJSON* item = Find(key);
  remarks_.push_back(
      {.fault = {key, ShortJsonText(item), std::move(reason)}, .item = item, .severity = severity});
}

}  // namespace ipsla::ctl
