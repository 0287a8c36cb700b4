#include "ctl/text_table.h"

#include <algorithm>
#include <numeric>

#include "ctl/display_text.h"

namespace ipsla::ctl {
namespace {

constexpr std::size_t kWideGap = 2;
constexpr std::size_t kNoteIndent = 2;

const char* Sequence(CellStyle style) {
  switch (style) {
    case CellStyle::kGood:
      return "\x1b[32m";
    case CellStyle::kDoubtful:
      return "\x1b[33m";
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

/// Which columns are shown, how wide, and how far apart.
class ColumnPlan {
 public:
  ColumnPlan(const TextTable& table, const TableLayout& layout) : table_(table), layout_(layout) {
    for (std::size_t column = 0; column < table.columns.size(); ++column) {
      std::size_t width = DisplayWidth(table.columns[column].header);
      for (const TableRow& row : table.rows) {
        width = std::max(width, CellWidth(row.cells[column], layout.colour));
      }
      widths_.push_back(width);
      shown_.push_back(column);
    }
    if (layout.width != 0) {
      Fit();
    }
  }

  [[nodiscard]] std::string Line(const std::vector<TableCell>& cells) const {
    std::string line;
    for (const std::size_t column : shown_) {
      const bool is_last = column == shown_.back();
      line += Cell(cells[column], column, is_last) + std::string(is_last ? 0 : gap_, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
  }

 private:
  [[nodiscard]] std::size_t Total() const {
    const std::size_t gaps = shown_.empty() ? 0 : gap_ * (shown_.size() - 1);
    return std::accumulate(
        shown_.begin(), shown_.end(), gaps,
        [this](std::size_t sum, std::size_t column) { return sum + widths_[column]; });
  }
  [[nodiscard]] bool Fits() const { return Total() <= layout_.width; }

  void Fit() {
    while (!Fits()) {
      const std::size_t leaving = LeavingColumn();
      const bool is_only = shown_.size() == 1;
      if (!is_only && table_.columns[leaving].optional) {
        std::erase(shown_, leaving);
        continue;
      }
      gap_ = 1;
      Shrink();
      if (Fits()) {
        return;
      }
      if (is_only) {
        widths_[leaving] = layout_.width;
        return;
      }
      std::erase(shown_, leaving);
    }
  }

  /// The one with the highest rank, of several the last.
  [[nodiscard]] std::size_t LeavingColumn() const {
    return *std::max_element(shown_.begin(), shown_.end(),
                             [this](std::size_t one, std::size_t other) {
                               return table_.columns[one].rank <= table_.columns[other].rank;
                             });
  }

  /// Cuts the columns that may be cut, those of high rank first, no more than is needed.
  void Shrink() {
    std::vector<std::size_t> by_rank = shown_;
    std::stable_sort(by_rank.begin(), by_rank.end(), [this](std::size_t one, std::size_t other) {
      return table_.columns[one].rank > table_.columns[other].rank;
    });
    for (const std::size_t column : by_rank) {
      const TableColumn& it = table_.columns[column];
      const std::size_t least = std::max(it.least_width, DisplayWidth(it.header));
      const std::size_t total = Total();
      if (it.least_width != 0 && widths_[column] > least && total > layout_.width) {
        widths_[column] -= std::min(total - layout_.width, widths_[column] - least);
      }
    }
  }

  [[nodiscard]] std::string Cell(const TableCell& cell, std::size_t column, bool is_last) const {
    const std::size_t width = widths_[column];
    TableCell cut = cell;
    if (const std::size_t needed = CellWidth(cell, layout_.colour); needed > width) {
      const std::size_t mark = needed - DisplayWidth(cell.text);
      cut.text = Shorten(cell.text, std::max<std::size_t>(width - std::min(mark, width), 1));
    }
    const std::size_t used = CellWidth(cut, layout_.colour);
    const std::string padding(width > used ? width - used : 0, ' ');
    const std::string text = Styled(cut.text, cut.style, layout_.colour);
    if (table_.columns[column].right_aligned) {
      return padding + text;
    }
    return is_last ? text : text + padding;
  }

  const TextTable& table_;
  const TableLayout& layout_;
  std::vector<std::size_t> widths_;  // by column
  std::vector<std::size_t> shown_;   // columns
  std::size_t gap_ = kWideGap;
};

void AddNote(const TableCell& note, const TableLayout& layout, std::vector<std::string>* lines) {
  const bool has_room = layout.width > kNoteIndent;
  const std::size_t indent = has_room || layout.width == 0 ? kNoteIndent : 0;
  const std::size_t width = layout.width == 0 ? 0 : layout.width - indent;
  for (const std::string& line : WrapText(note.text, width)) {
    lines->push_back(std::string(indent, ' ') + Styled(line, note.style, layout.colour));
  }
}

}  // namespace

std::string Styled(const std::string& text, CellStyle style, bool colour) {
  if (!colour) {
    return style == CellStyle::kChanged ? text + "*" : text;
  }
  return style == CellStyle::kPlain || text.empty() ? text : Sequence(style) + text + "\x1b[0m";
}

TableLines LayOutTable(const TextTable& table, const TableLayout& layout) {
  const ColumnPlan plan(table, layout);
  TableLines lines;
  std::vector<TableCell> header;
  for (const TableColumn& column : table.columns) {
    header.push_back({column.header, CellStyle::kHeader});
  }
  lines.header = plan.Line(header);
  for (const TableRow& row : table.rows) {
    std::vector<std::string> row_lines{plan.Line(row.cells)};
    for (const TableCell& note : row.notes) {
      AddNote(note, layout, &row_lines);
    }
    lines.rows.push_back(std::move(row_lines));
  }
  return lines;
}

std::vector<std::string> RenderTable(const TextTable& table, const TableLayout& layout) {
  TableLines laid_out = LayOutTable(table, layout);
  std::vector<std::string> lines{std::move(laid_out.header)};
  for (auto& row : laid_out.rows) {
    std::move(row.begin(), row.end(), std::back_inserter(lines));
  }
  return lines;
}

}  // namespace ipsla::ctl
