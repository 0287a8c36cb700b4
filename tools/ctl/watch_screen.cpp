#include "ctl/watch_screen.h"

#include <algorithm>

#include <fmt/format.h>

#include "ctl/display_text.h"

namespace ipsla::ctl {
namespace {

std::string Cut(const std::string& text, std::size_t width) {
  return width == 0 ? text : Shorten(text, width);
}

/// "rows 3-12 of 500, 2 failing out of sight; arrows, page keys, q"
std::string PositionText(const ScreenContent& content, std::size_t first, std::size_t shown) {
  std::size_t hidden_failing = 0;
  for (std::size_t row = 0; row < content.tasks.size(); ++row) {
    const bool is_hidden = row < first || row >= first + shown;
    hidden_failing += is_hidden && CountsAsFailing(content.tasks[row], content.rules) ? 1 : 0;
  }
  return fmt::format("rows {}-{} of {}, {} failing out of sight; arrows, page keys, q",
                     shown == 0 ? first : first + 1, first + shown, content.tasks.size(),
                     hidden_failing);
}

}  // namespace

std::vector<std::string> WatchScreen::Draw(const ScreenContent& content, const TableLayout& layout,
                                           std::size_t height) {
  std::vector<std::string> lines{
      Cut(content.title, layout.width),
      Styled(Cut(content.trouble, layout.width), CellStyle::kBad, layout.colour)};
  visible_.clear();
  row_count_ = content.table.rows.size();
  if (row_count_ > 0) {
    const TableLines rows = LayOutTable(content.table, layout);
    lines.push_back(rows.header);
    std::vector<std::string> remarks;
    for (const std::string& remark : content.remarks) {
      remarks.push_back(Cut(remark, layout.width));
    }
    const std::size_t taken = lines.size() + remarks.size();
    Fill(content, rows, height > taken ? height - taken : 0, &lines);
    if (shown_ < row_count_) {
      lines.push_back(Cut(PositionText(content, first_, shown_), layout.width));
    }
    lines.insert(lines.end(), remarks.begin(), remarks.end());
  }
  lines.resize(std::min(lines.size(), height));
  return lines;
}

void WatchScreen::Fill(const ScreenContent& content, const TableLines& rows, std::size_t room,
                       std::vector<std::string>* lines) {
  std::size_t all = 0;
  for (const auto& row : rows.rows) {
    all += row.size();
  }
  if (all <= room) {
    first_ = 0;
  } else if (room > 0) {
    --room;  // for what is out of sight
  }
  // No further down than it takes to see the last row.
  std::size_t last_page = rows.rows.size();
  for (std::size_t used = 0; last_page > 0; --last_page) {
    used += rows.rows[last_page - 1].size();
    if (used > room) {
      break;
    }
  }
  first_ = std::min({first_, last_page, rows.rows.size() - 1});
  shown_ = 0;
  std::size_t used = 0;
  for (std::size_t row = first_; row < rows.rows.size(); ++row) {
    used += rows.rows[row].size();
    // A row whose notes have no room is shown as far as it goes when nothing else is.
    if (used > room && shown_ > 0) {
      break;
    }
    lines->insert(lines->end(), rows.rows[row].begin(), rows.rows[row].end());
    visible_.insert(content.tasks[row].id);
    ++shown_;
  }
}

void WatchScreen::Move(Key key) {
  const std::size_t page = std::max<std::size_t>(shown_, 1);
  switch (key) {
    case Key::kUp:
      first_ -= std::min<std::size_t>(first_, 1);
      break;
    case Key::kDown:
      ++first_;
      break;
    case Key::kPageUp:
      first_ -= std::min(first_, page);
      break;
    case Key::kPageDown:
      first_ += page;
      break;
    case Key::kFirst:
      first_ = 0;
      break;
    case Key::kLast:
      first_ = row_count_;
      break;
    case Key::kQuit:
      break;
  }
}

}  // namespace ipsla::ctl
