// A table of text as lines that fit a terminal. Pure.

#ifndef IPSLA_TOOLS_CTL_TEXT_TABLE_H_
#define IPSLA_TOOLS_CTL_TEXT_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ipsla::ctl {

/// How a cell is shown where there are colours.
enum class CellStyle : std::uint8_t { kPlain, kGood, kDoubtful, kBad, kChanged, kHeader };

/// `text` with the terminal sequences of `style`, or, without colour, as it is (kChanged then gets
/// a "*" at its end).
[[nodiscard]] std::string Styled(const std::string& text, CellStyle style, bool colour);

/// One value as it is shown.
struct TableCell {
  std::string text;  ///< printable
  CellStyle style = CellStyle::kPlain;
};

/// What the cells of a column have in common.
struct TableColumn {
  std::string header;
  bool right_aligned = false;
  /// Where there is no room the columns of the highest rank leave first; of one rank, the last.
  std::uint32_t rank = 0;
  /// How far its texts may be cut before a column leaves; 0: not at all.
  std::size_t least_width = 0;
  /// Leaves before any other column is cut or moves closer.
  bool optional = false;
};

/// One line, as many cells as columns.
struct TableRow {
  std::vector<TableCell> cells;    ///< as many as there are columns
  std::vector<TableCell> notes{};  ///< lines of their own below the row
};

/// Columns and rows, not yet laid out.
struct TextTable {
  std::vector<TableColumn> columns;
  std::vector<TableRow> rows;
};

/// What the table has to fit.
struct TableLayout {
  std::size_t width = 0;  ///< columns of the terminal; 0: as wide as it gets
  bool colour = false;
};

/// The lines of a table and where its rows are in them.
struct TableLines {
  std::string header;
  std::vector<std::vector<std::string>> rows;  ///< of each row its line and those of its notes
};

/// Columns are aligned and two spaces apart, or one where that is not wide enough, and leave by
/// rank where that does not help; notes are broken into lines at spaces. No line is wider than the
/// layout: at the worst it is cut.
[[nodiscard]] TableLines LayOutTable(const TextTable& table, const TableLayout& layout);

/// The same as a list of lines.
[[nodiscard]] std::vector<std::string> RenderTable(const TextTable& table,
                                                   const TableLayout& layout);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_TEXT_TABLE_H_
