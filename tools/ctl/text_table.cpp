#include "ctl/text_table.h"

#include <algorithm>
#include <numeric>

#include "ctl/display_text.h"

namespace ipsla::ctl {
namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kShortestLastColumn = 12;

const char* Sequence(CellStyle style) {
  switch (style) {
    case CellStyle::kGood:
      return "\x1b[32m";
    case CellStyle::kBad:
      return "\x1b[1;31m";
    case CellStyle::kChanged:
      return "\x1b[7m";
    case CellStyle::kHeader:
      return "\x1b[1m";
    case CellStyle::kPlain:
      break;
  }
  return "";
}

/// What a cell takes in the output, mark of a change included.
std::size_t CellWidth(const TableCell& cell, bool colour) {
  return DisplayWidth(cell.text) + (cell.style == CellStyle::kChanged && !colour ? 1 : 0);
}

std::vector<std::size_t> ColumnWidths(const TextTable& table, bool colour) {
  std::vector<std::size_t> widths;
  for (std::size_t column = 0; column < table.columns.size(); ++column) {
    std::size_t width = DisplayWidth(table.columns[column].header);
    for (const auto& row : table.rows) {
      width = std::max(width, CellWidth(row[column], colour));
    }
    widths.push_back(width);
  }
  return widths;
}

std::string RenderCell(const TableCell& cell, const TableColumn& column, std::size_t width,
                       bool is_last, bool colour) {
  const std::size_t used = CellWidth(cell, colour);
  const std::string padding(width > used ? width - used : 0, ' ');
  const std::string text = Styled(cell.text, cell.style, colour);
  if (column.right_aligned) {
    return padding + text;
  }
  return is_last ? text : text + padding;
}

std::string RenderRow(const std::vector<TableCell>& row, const TextTable& table,
                      const std::vector<std::size_t>& widths, bool colour) {
  std::string line;
  for (std::size_t column = 0; column < row.size(); ++column) {
    const bool is_last = column + 1 == row.size();
    line += RenderCell(row[column], table.columns[column], widths[column], is_last, colour);
    line += std::string(is_last ? 0 : kGap, ' ');
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

std::vector<std::string> RenderLines(TextTable table, const std::vector<std::size_t>& widths,
                                     bool colour) {
  std::vector<TableCell> header;
  for (const TableColumn& column : table.columns) {
    header.push_back({column.header, CellStyle::kHeader});
  }
  std::vector<std::string> lines{RenderRow(header, table, widths, colour)};
  for (auto& row : table.rows) {
    row.back().text = Shorten(row.back().text, widths.back());
    lines.push_back(RenderRow(row, table, widths, colour));
  }
  return lines;
}

std::vector<std::string> RenderBlocks(const TextTable& table, bool colour) {
  std::size_t label_width = 0;
  for (const TableColumn& column : table.columns) {
    label_width = std::max(label_width, DisplayWidth(column.header));
  }
  std::vector<std::string> lines;
  for (const auto& row : table.rows) {
    if (!lines.empty()) {
      lines.emplace_back();
    }
    for (std::size_t column = 0; column < row.size(); ++column) {
      const TableCell& cell = row[column];
      if (!cell.text.empty() && cell.text != kNoValue) {
        const std::string label = PadRight(table.columns[column].header, label_width + kGap);
        lines.push_back(Styled(label, CellStyle::kHeader, colour) +
                        Styled(cell.text, cell.style, colour));
      }
    }
  }
  return lines;
}

}  // namespace

std::string Styled(const std::string& text, CellStyle style, bool colour) {
  if (!colour) {
    return style == CellStyle::kChanged ? text + "*" : text;
  }
  return style == CellStyle::kPlain || text.empty() ? text : Sequence(style) + text + "\x1b[0m";
}

std::vector<std::string> RenderTable(const TextTable& table, const TableLayout& layout) {
  std::vector<std::size_t> widths = ColumnWidths(table, layout.colour);
  const std::size_t total =
      std::accumulate(widths.begin(), widths.end(), kGap * (widths.size() - 1));
  if (layout.width != 0 && total > layout.width) {
    const std::size_t excess = total - layout.width;
    if (widths.back() <
        excess + std::max(kShortestLastColumn, DisplayWidth(table.columns.back().header))) {
      return RenderBlocks(table, layout.colour);
    }
    widths.back() -= excess;
  }
  return RenderLines(table, widths, layout.colour);
}

}  // namespace ipsla::ctl
