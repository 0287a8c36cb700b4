// One screen of `watch`: as many tasks as there is room for, and what is out of sight. Pure.

#ifndef IPSLA_TOOLS_CTL_WATCH_SCREEN_H_
#define IPSLA_TOOLS_CTL_WATCH_SCREEN_H_

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "ctl/task_view.h"
#include "ctl/watch_keys.h"

namespace ipsla::ctl {

/// What is drawn.
struct ScreenContent {
  std::string title;              ///< time, counts, interval
  std::string trouble{};          ///< why the last refresh failed
  std::vector<TaskView> tasks{};  ///< in the order of the rows
  TextTable table{};              ///< the TaskTable of them
  TaskRules rules{};
  std::vector<std::string> remarks{};  ///< below the table
};

/// Puts what there is to show into as many lines as there are, and remembers what is in sight.
class WatchScreen {
 public:
  /// The lines, at most `height`, none wider than `layout`.
  [[nodiscard]] std::vector<std::string> Draw(const ScreenContent& content,
                                              const TableLayout& layout, std::size_t height);

  /// Moves over what Draw last showed; the next Draw keeps to the tasks that there are.
  void Move(Key key);

  /// Ids of the tasks that Draw last showed.
  [[nodiscard]] const std::set<std::int32_t>& Visible() const { return visible_; }

 private:
  // Adds as many rows as `room` lines take.
  void Fill(const ScreenContent& content, const TableLines& rows, std::size_t room,
            std::vector<std::string>* lines);

  std::size_t first_ = 0;      // row at the top
  std::size_t shown_ = 0;      // rows that had room
  std::size_t row_count_ = 0;  // of the table
  // Tasks whose rows are shown.
  std::set<std::int32_t> visible_;
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_WATCH_SCREEN_H_
