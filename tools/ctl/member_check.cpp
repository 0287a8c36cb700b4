#include "ctl/member_check.h"

#include <algorithm>
#include <optional>
#include <set>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "client/nearest_word.h"
#include "config/json_text.h"

namespace ipsla::ctl {
namespace {

bool IsOfKind(const cJSON* item, KeyKind kind) {
  switch (kind) {
    case KeyKind::kNumber:
      return cJSON_IsNumber(item) != 0;
    case KeyKind::kText:
      return cJSON_IsString(item) != 0;
    case KeyKind::kTextOrNumber:
      return cJSON_IsString(item) != 0 || cJSON_IsNumber(item) != 0;
    case KeyKind::kBool:
      return cJSON_IsBool(item) != 0;
    case KeyKind::kObject:
      return cJSON_IsObject(item) != 0;
    case KeyKind::kArray:
      return cJSON_IsArray(item) != 0;
    case KeyKind::kAny:
      break;
  }
  return true;
}

const char* KindName(KeyKind kind) {
  switch (kind) {
    case KeyKind::kNumber:
      return "number";
    case KeyKind::kText:
      return "text";
    case KeyKind::kTextOrNumber:
      return "text or number";
    case KeyKind::kBool:
      return "true or false";
    case KeyKind::kObject:
      return "object";
    case KeyKind::kArray:
      return "array";
    case KeyKind::kAny:
      break;
  }
  return "value";
}

bool IsComment(KeyPlace place, std::string_view name) {
  const bool is_root = place == KeyPlace::kTasksRoot || place == KeyPlace::kKeychainRoot;
  return name.starts_with('_') || (is_root && name == "$schema");
}

std::string UnknownKeyReason(KeyPlace place, std::string_view name) {
  std::vector<std::string_view> names;
  for (const KnownKey& key : KeysOf(place)) {
    names.push_back(key.name);
  }
  const std::string nearest = client::NearestWord(name, names);
  return nearest.empty()
             ? "unknown key: it is not read"
             : fmt::format("unknown key: it is not read; did you mean \"{}\"?", nearest);
}

/// What is wrong with a value of a known key.
std::optional<std::string> ValueReason(const cJSON* item, KeyKind kind) {
  if (!IsOfKind(item, kind)) {
    return fmt::format("is no {} and is not read", KindName(kind));
  }
  // The library cuts a number toward zero and into 32 bits.
  if (cJSON_IsNumber(item) != 0 && item->valuedouble != item->valueint) {
    return fmt::format("is kept as {}", item->valueint);
  }
  return std::nullopt;
}

void AddRemarks(const cJSON* object, KeyPlace place, const std::string& prefix,
                std::vector<Remark>* remarks) {
  const std::vector<Remark> more = MemberRemarks(object, place, prefix);
  remarks->insert(remarks->end(), more.begin(), more.end());
}

}  // namespace

std::vector<Remark> MemberRemarks(const cJSON* object, KeyPlace place, const std::string& prefix) {
  std::vector<Remark> remarks;
  if (cJSON_IsObject(object) == 0) {
    return remarks;
  }
  std::set<std::string_view> seen;
  const cJSON* member = nullptr;
  cJSON_ArrayForEach(member, object) {
    const std::string name = member->string;
    // A value without a known key, or that does not count, may be a secret: it is not shown.
    const auto about_name = [&](std::string reason) {
      remarks.push_back(
          {.fault = {prefix + name, "", std::move(reason)}, .item = member, .at_name = true});
    };
    const KnownKey* known = FindKnownKey(place, name);
    if (known == nullptr) {
      if (!IsComment(place, name)) {
        about_name(UnknownKeyReason(place, name));
      }
      continue;
    }
    if (!seen.insert(known->name).second) {
      about_name("stands here again: only the first one counts");
      continue;
    }
    if (known->name != name) {
      about_name(
          fmt::format("is read as \"{}\": other readers take it for another key", known->name));
    }
    if (auto reason = ValueReason(member, known->kind)) {
      remarks.push_back(
          {.fault = {prefix + std::string(known->name), ShortJsonText(member), std::move(*reason)},
           .item = member});
    }
  }
  return remarks;
}

std::vector<Remark> TaskMemberRemarks(const cJSON* task) {
  std::vector<Remark> remarks = MemberRemarks(task, KeyPlace::kTask);
  const auto descend = [&](const std::string& key, KeyPlace place) {
    AddRemarks(MemberAt(task, key), place, key + ".", &remarks);
  };
  descend("scheduler", KeyPlace::kScheduler);
  descend("control-phase", KeyPlace::kControlPhase);
  descend("control-phase.authentication", KeyPlace::kAuthentication);
  const char* type = cJSON_GetStringValue(MemberAt(task, "sla-type"));
  if (type != nullptr && TestTypeFromString(type) != SlaTestType::kNone) {
    descend(type, KeyPlace::kMeasurement);
  }
  return remarks;
}

}  // namespace ipsla::ctl
