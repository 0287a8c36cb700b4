#include <algorithm>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "config/json_text.h"
#include "ctl/check.h"
#include "ctl/json_out.h"

namespace ipsla::ctl {
namespace {

std::string FindingLine(const FileReport& report, const Finding& finding, const char* noun,
                        const char* kind) {
  std::string line = report.name + ":";
  if (finding.place.line > 0) {
    line += fmt::format("{}:{}:", finding.place.line, finding.place.column);
  }
  line += " ";
  if (finding.number > 0) {
    line += fmt::format("{} {}", noun, finding.number);
    line += finding.id ? fmt::format(" (id {}): ", *finding.id) : ": ";
  }
  line += kind;
  if (!finding.fault.key.empty()) {
    line += finding.fault.key;
    if (finding.missing) {
      line += " (missing)";
    } else if (!finding.fault.value.empty()) {
      line += " = " + finding.fault.value;
    }
    line += ": ";
  }
  line += finding.fault.reason;
  return finding.expected.empty() ? line : fmt::format("{} (expected {})", line, finding.expected);
}

std::string CountLine(const FileReport& report, const char* noun) {
  const auto count = [](std::size_t number, const char* word) {
    return fmt::format("{} {}{}", number, word, number == 1 ? "" : "s");
  };
  return fmt::format("{}: {}, {} accepted, {}, {}", report.name, count(report.elements, noun),
                     report.accepted, count(report.faults.size(), "fault"),
                     count(report.warnings.size(), "warning"));
}

void Append(std::vector<std::string>* lines, const std::vector<std::string>& more) {
  lines->insert(lines->end(), more.begin(), more.end());
}

/// A number that is 0 where there is none.
cJSON* NumberOrNull(std::size_t number) {
  return number > 0 ? cJSON_CreateNumber(static_cast<double>(number)) : cJSON_CreateNull();
}

cJSON* FindingJson(const Finding& finding) {
  cJSON* object = cJSON_CreateObject();
  cJSON_AddItemToObject(object, "number", NumberOrNull(finding.number));
  cJSON_AddItemToObject(object, "id",
                        finding.id ? cJSON_CreateNumber(*finding.id) : cJSON_CreateNull());
  cJSON_AddStringToObject(object, "key", finding.fault.key.c_str());
  cJSON_AddStringToObject(object, "value", finding.fault.value.c_str());
  cJSON_AddStringToObject(object, "reason", finding.fault.reason.c_str());
  cJSON_AddStringToObject(object, "expected", finding.expected.c_str());
  cJSON_AddItemToObject(object, "line", NumberOrNull(finding.place.line));
  cJSON_AddItemToObject(object, "column", NumberOrNull(finding.place.column));
  return object;
}

cJSON* FileJson(const FileReport& report) {
  const auto add_findings = [](cJSON* object, const char* key,
                               const std::vector<Finding>& findings) {
    cJSON* array = cJSON_AddArrayToObject(object, key);
    for (const Finding& finding : findings) {
      cJSON_AddItemToArray(array, FindingJson(finding));
    }
  };
  cJSON* object = cJSON_CreateObject();
  cJSON_AddStringToObject(object, "file", report.name.c_str());
  cJSON_AddNumberToObject(object, "elements", static_cast<double>(report.elements));
  cJSON_AddNumberToObject(object, "accepted", static_cast<double>(report.accepted));
  add_findings(object, "faults", report.faults);
  add_findings(object, "warnings", report.warnings);
  cJSON* notes = cJSON_AddArrayToObject(object, "notes");
  for (const std::string& note : report.notes) {
    cJSON_AddItemToArray(notes, cJSON_CreateString(note.c_str()));
  }
  return object;
}

}  // namespace

bool CheckReport::HasFaults() const {
  return !tasks.faults.empty() || (keychain && !keychain->faults.empty());
}

bool CheckReport::IsFatal() const {
  const auto is_fatal = [](const FileReport& file) {
    return std::ranges::any_of(file.faults, &Finding::is_fatal);
  };
  return is_fatal(tasks) || (keychain && is_fatal(*keychain));
}

bool CheckReport::HasWarnings() const {
  return !tasks.warnings.empty() || (keychain && !keychain->warnings.empty());
}

std::vector<std::string> FindingLines(const FileReport& report, const char* noun) {
  std::vector<std::string> lines;
  for (const Finding& finding : report.faults) {
    lines.push_back(FindingLine(report, finding, noun, ""));
  }
  for (const Finding& finding : report.warnings) {
    lines.push_back(FindingLine(report, finding, noun, "warning: "));
  }
  for (const std::string& note : report.notes) {
    lines.push_back(fmt::format("{}: note: {}", report.name, note));
  }
  return lines;
}

std::vector<std::string> CheckLines(const CheckReport& report) {
  std::vector<std::string> lines = FindingLines(report.tasks, "task");
  if (report.keychain) {
    Append(&lines, FindingLines(*report.keychain, "key"));
  }
  lines.push_back(CountLine(report.tasks, "task"));
  if (report.keychain) {
    lines.push_back(CountLine(*report.keychain, "key"));
  }
  return lines;
}

std::string CheckJson(const CheckReport& report) {
  const JsonDocument document(cJSON_CreateObject());
  cJSON_AddItemToObject(document.get(), "tasks", FileJson(report.tasks));
  cJSON_AddItemToObject(document.get(), "keychain",
                        report.keychain ? FileJson(*report.keychain) : cJSON_CreateNull());
  return CompactJson(document.get());
}

}  // namespace ipsla::ctl
