#include "ctl/file_check.h"

#include <utility>

#include <cjson/cJSON.h>
#include <fmt/format.h>

namespace ipsla::ctl {
namespace {

/// Secrets are not shown, not even wrong ones or those in the wrong place: of what may hold one
/// only the kind.
TaskFault WithoutSecret(TaskFault fault) {
  std::string& value = fault.value;
  const bool is_secret = fault.key.ends_with("key-string") || fault.key.ends_with("authentication");
  if (value.size() > 2 && value.starts_with('{')) {
    value = "{...}";
  } else if (value.size() > 2 && value.starts_with('[')) {
    value = "[...]";
  } else if (is_secret && !value.empty()) {
    value = "(hidden)";
  }
  return fault;
}

}  // namespace

FileCheck::FileCheck(const std::string& name, const ConfigInput& input, const char* array)
    : report_{.name = name} {
  if (input.fault) {
    AddFileFault(*input.fault, {});
    return;
  }
  const std::string_view text(input.text);
  const std::string_view document = text.substr(0, text.find('\0'));
  file_ = ReadConfigText(document, array);
  positions_.emplace(document, Root());
  AddDocumentFault(array);
  AddRest(text, document.size());
}

void FileCheck::Add(std::size_t number, const std::optional<std::int32_t>& id, const cJSON* element,
                    const Remark& remark, std::string expected) {
  const cJSON* item = remark.item != nullptr ? remark.item : MemberAt(element, remark.fault.key);
  const bool missing = item == nullptr;
  if (missing) {
    item = NearestMemberAt(element, remark.fault.key);
  }
  auto& findings = remark.severity == Severity::kWarning ? report_.warnings : report_.faults;
  findings.push_back(
      {.number = number,
       .id = id,
       .fault = WithoutSecret(remark.fault),
       .expected = std::move(expected),
       .missing = missing && !remark.fault.key.empty(),
       .is_fatal = remark.severity == Severity::kFatal,
       .place = remark.at_name ? positions_->OfName(item) : positions_->OfValue(item)});
}

void FileCheck::AddFileFault(std::string reason, TextPlace place) {
  report_.faults.push_back(
      {.fault = {"", "", std::move(reason)}, .is_fatal = true, .place = place});
}

void FileCheck::AddDocumentFault(const char* array) {
  if (file_.fault == ConfigFileFault::kNoArray) {
    AddFileFault(fmt::format("there is no array \"{}\"", array), positions_->OfValue(Root()));
    return;
  }
  if (file_.fault != ConfigFileFault::kNotJson) {
    return;
  }
  const TextPlace place{file_.json.error_line, file_.json.error_column};
  AddFileFault(
      file_.json.too_deep ? fmt::format("nests deeper than {}", kMaxJsonDepth) : "not valid JSON",
      place);
}

void FileCheck::AddRest(std::string_view text, std::size_t end) {
  if (Root() == nullptr) {
    return;
  }
  const auto warn = [this](std::size_t offset, const char* reason) {
    report_.warnings.push_back({.fault = {"", "", reason}, .place = positions_->At(offset)});
  };
  std::size_t rest = positions_->End();
  while (rest < end && static_cast<unsigned char>(text[rest]) <= ' ') {
    ++rest;
  }
  if (rest < end) {
    warn(rest, "the document ends before this, and what follows is not read");
  }
  if (end < text.size()) {
    warn(end, "a NUL byte ends the file here for the daemon");
  }
}

}  // namespace ipsla::ctl
