// A table of text as lines. Pure.

#ifndef IPSLA_TOOLS_CTL_TEXT_TABLE_H_
#define IPSLA_TOOLS_CTL_TEXT_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ipsla::ctl {

enum class CellStyle : std::uint8_t { kPlain, kGood, kBad, kChanged, kHeader };

/// `text` with the terminal sequences of `style`, or, without colour, as it is (kChanged then gets
/// a "*" at its end).
[[nodiscard]] std::string Styled(const std::string& text, CellStyle style, bool colour);

struct TableCell {
  std::string text;  ///< printable
  CellStyle style = CellStyle::kPlain;
};

struct TableColumn {
  std::string header;
  bool right_aligned = false;
};

struct TextTable {
  std::vector<TableColumn> columns;
  std::vector<std::vector<TableCell>> rows;  ///< as many cells each as there are columns
};

struct TableLayout {
  std::size_t width = 0;  ///< columns of the terminal; 0: as wide as it gets
  bool colour = false;
};

/// A header and one line for each row, columns aligned and two spaces apart, the last column not
/// padded. When that is wider than the layout, first the last column is shortened (to a dozen
/// columns at most), then each row becomes a block of lines, one for each cell that has a value.
[[nodiscard]] std::vector<std::string> RenderTable(const TextTable& table,
                                                   const TableLayout& layout);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TEXT_TABLE_H_
