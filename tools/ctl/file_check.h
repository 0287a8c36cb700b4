// One configuration file while it is checked. Of the checker; others use check.h.

#ifndef IPSLA_TOOLS_CTL_FILE_CHECK_H_
#define IPSLA_TOOLS_CTL_FILE_CHECK_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "config/config_file.h"
#include "ctl/check.h"

namespace ipsla::ctl {

/// The document of a file and what was found in it so far.
class FileCheck {
 public:
  /// Reads the text; what is wrong with the file as a whole is in the report then. `array` is the
  /// key that its root must have.
  FileCheck(const std::string& name, const ConfigInput& input, const char* array);

  /// The array; null when there is none, and the report then says why.
  [[nodiscard]] const cJSON* Array() const { return file_.array; }
  /// The document; null as above.
  [[nodiscard]] const cJSON* Root() const { return file_.json.document.get(); }
  [[nodiscard]] FileReport& Report() { return report_; }

  /// Adds a finding about an element (number 0: about the file), at the place that `remark` names.
  /// A key's text is left out of it.
  void Add(std::size_t number, const std::optional<std::int32_t>& id, const cJSON* element,
           const Remark& remark, std::string expected = "");

 private:
  // Notes a fault of the file as a whole.
  void AddFileFault(std::string reason, TextPlace place);
  void AddDocumentFault(const char* array);
  /// What the file has behind the document's end.
  void AddRest(std::string_view text, std::size_t end);

  // The document, and where its members stand.
  ConfigFile file_;
  std::optional<JsonPositions> positions_;
  FileReport report_;
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_FILE_CHECK_H_
