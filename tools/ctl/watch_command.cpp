#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "client/task_document.h"
#include "ctl/commands.h"
#include "ctl/interrupts.h"
#include "ctl/task_groups.h"
#include "ctl/task_order.h"
#include "ctl/terminal.h"
#include "ctl/terminal_input.h"
#include "ctl/watch_changes.h"
#include "ctl/watch_feed.h"
#include "ctl/watch_screen.h"

namespace ipsla::ctl {
namespace {

using client::ClientError;
using Clock = std::chrono::steady_clock;

/// Shows each refresh as its kind of output wants it.
class Display {
 public:
  Display() = default;
  virtual ~Display() = default;
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;

  virtual void Show(std::vector<TaskView> tasks) = 0;
  /// A refresh that failed: what was shown stays.
  virtual void ShowTrouble(const std::string& text) {
    if (trouble_ != text) {
      fmt::print(stderr, "ip-sla-ctl: {}\n", text);
    }
    trouble_ = text;
  }
  /// False when the user wants to end.
  virtual bool TakeInput() { return true; }
  [[nodiscard]] virtual int InputFd() const { return -1; }
  /// Ids of what is shown; empty: everything.
  [[nodiscard]] virtual std::set<std::int32_t> Visible() const { return {}; }

 protected:
  std::string trouble_;  // of the last refresh
};

/// A line for each new result.
class LineDisplay : public Display {
 public:
  void Show(std::vector<TaskView> tasks) override {
    trouble_.clear();
    tasks = WithKnownValues(last_, std::move(tasks));
    for (const std::string& line : ChangeLines(last_, tasks, {.now = Now()})) {
      fmt::print("{}\n", line);
    }
    last_ = std::move(tasks);
    std::fflush(stdout);
  }

 private:
  std::vector<TaskView> last_;
};

/// A document for each refresh.
class JsonDisplay : public Display {
 public:
  void Show(std::vector<TaskView> tasks) override {
    trouble_.clear();
    last_ = WithKnownValues(last_, std::move(tasks));
    const client::DocumentContext context{.now = Now(), .clock = client::ReadClockState()};
    fmt::print("{}\n", client::JsonLine(client::TasksDocument(last_, context).get()));
    std::fflush(stdout);
  }

 private:
  std::vector<TaskView> last_;
};

/// Of an order by values that are asked for in portions.
std::string OrderRemark(std::size_t due) {
  return due == 0
             ? "values out of sight may be older"
             : fmt::format("{} results not asked for yet; values out of sight may be older", due);
}

/// The table on a terminal, which can be scrolled.
class ScreenDisplay : public Display {
 public:
  ScreenDisplay(SortKey sort, double interval, WatchFeed* feed)
      : sort_(sort), interval_(interval), feed_(feed) {
    fmt::print("\x1b[?25l\x1b[2J");
  }
  ~ScreenDisplay() override {
    fmt::print("\x1b[?25h");
    std::fflush(stdout);
  }
  ScreenDisplay(const ScreenDisplay&) = delete;
  ScreenDisplay& operator=(const ScreenDisplay&) = delete;

  void Show(std::vector<TaskView> tasks) override {
    content_.trouble.clear();
    content_.rules = {.now = Now()};
    SortTasks(sort_, content_.rules, &tasks);
    content_.tasks = std::move(tasks);
    TextTable table = TaskTable(content_.tasks, content_.rules);
    content_.table = table;
    if (has_shown_) {
      MarkChanges(unmarked_, &content_.table);
    }
    has_shown_ = true;
    unmarked_ = std::move(table);
    CompleteAndDraw();
  }

  void ShowTrouble(const std::string& text) override {
    content_.trouble = text;
    Draw();
  }

  bool TakeInput() override {
    for (const Key key : keys_.Feed(input_.Read())) {
      if (key == Key::kQuit) {
        return false;
      }
      screen_.Move(key);
    }
    CompleteAndDraw();
    return true;
  }
  [[nodiscard]] int InputFd() const override { return input_.Fd(); }
  [[nodiscard]] std::set<std::int32_t> Visible() const override { return screen_.Visible(); }

 private:
  /// Nothing comes into sight without its values. The order of the rows stays.
  void CompleteAndDraw() {
    // While the daemon does not answer, no key waits for it.
    if (has_shown_ && content_.trouble.empty()) {
      try {
        do {
          SetRemarks();
          (void)Lines(StandardOutput());
        } while (Complete());
      } catch (const ClientError& error) {
        if (error.GetKind() == ClientError::Kind::kInterrupted) {
          throw;
        }
        content_.trouble = error.what();
      }
    }
    SetRemarks();
    Draw();
  }

  /// Whether anything in sight changed by it.
  bool Complete() {
    const auto completed = feed_->Complete(screen_.Visible(), Now());
    for (const TaskView& task : completed) {
      const auto known = std::find_if(content_.tasks.begin(), content_.tasks.end(),
                                      [&task](const TaskView& it) { return it.id == task.id; });
      const auto row = static_cast<std::size_t>(known - content_.tasks.begin());
      *known = task;
      unmarked_.rows[row] = TaskTable({task}, content_.rules).rows.front();
      content_.table.rows[row] = unmarked_.rows[row];
    }
    return !completed.empty();
  }

  void SetRemarks() {
    content_.remarks.clear();
    if (sort_ == SortKey::kRtt && feed_->HasMany()) {
      content_.remarks.push_back(OrderRemark(feed_->DueCount()));
    }
    if (std::string remark = ClockRemark(content_.tasks, client::ReadClockState());
        !remark.empty()) {
      content_.remarks.push_back(std::move(remark));
    }
  }

  std::vector<std::string> Lines(const Terminal& terminal) {
    // Every line ends with a line feed, so the last of the terminal stays empty.
    return screen_.Draw(content_, terminal.Layout(), std::max<std::size_t>(terminal.height, 2) - 1);
  }

  void Draw() {
    const auto failing = std::count_if(
        content_.tasks.begin(), content_.tasks.end(),
        [this](const TaskView& task) { return CountsAsFailing(task, content_.rules); });
    content_.title =
        fmt::format("{:%H:%M:%S}  tasks {}, failing {}, every {} s; q ends",
                    fmt::localtime(content_.rules.now == 0 ? Now() : content_.rules.now),
                    content_.tasks.size(), failing, interval_);
    // Cleared before it is written: a line that fills the width has no place behind it.
    fmt::print("\x1b[H");
    for (const std::string& line : Lines(StandardOutput())) {
      fmt::print("\x1b[K{}\n", line);
    }
    fmt::print("\x1b[J");
    std::fflush(stdout);
  }

  const SortKey sort_;
  const double interval_;  // seconds
  WatchFeed* const feed_;
  TerminalInput input_;
  KeyReader keys_;
  WatchScreen screen_;
  ScreenContent content_;
  TextTable unmarked_;  // as last shown, without marks
  bool has_shown_ = false;
};

std::unique_ptr<Display> MakeDisplay(const CommonOptions& common, const WatchOptions& options,
                                     WatchFeed* feed) {
  if (common.json) {
    return std::make_unique<JsonDisplay>();
  }
  if (StandardOutput().is_terminal) {
    return std::make_unique<ScreenDisplay>(SortKeyOf(options.sort, false), options.interval, feed);
  }
  return std::make_unique<LineDisplay>();
}

/// One refresh; kInterrupted passes through, and so does anything at the first one.
void Refresh(WatchFeed* feed, bool is_first, Display* display) {
  try {
    display->Show(feed->Refresh(display->Visible(), Now()));
  } catch (const ClientError& error) {
    if (is_first || error.GetKind() == ClientError::Kind::kInterrupted) {
      throw;
    }
    display->ShowTrouble(error.what());
  }
}

/// False when the command is to end.
bool WaitForNext(const Interrupts& interrupts, Clock::time_point deadline, Display* display) {
  while (true) {
    switch (interrupts.WaitUntil(deadline, display->InputFd())) {
      case Interrupts::Wake::kTime:
        return true;
      case Interrupts::Wake::kInterrupt:
        return false;
      case Interrupts::Wake::kInput:
        if (!display->TakeInput()) {
          return false;
        }
        break;
    }
  }
}

std::set<std::string> GroupsFor(const CommonOptions& common) {
  // A terminal may become wider.
  return common.json ? MetricGroupNames() : TableGroups(0);
}

}  // namespace

int RunWatch(const CommonOptions& common, const WatchOptions& options) {
  const Interrupts interrupts;
  client::ClientOptions client_options = common.client;
  client_options.interrupt_fd = interrupts.Fd();
  const auto interval =
      std::chrono::milliseconds(static_cast<std::int64_t>(options.interval * 1000));
  try {
    TaskSource source(client_options, options.choice);
    if (!options.choice.selection.ids.empty()) {
      const client::TaskAnswer known = source.Query({});
      if (!known.unknown.empty()) {
        ReportUnknown(known.unknown);
        return kExitUsage;
      }
    }
    WatchFeed feed(&source, GroupsFor(common));
    const std::unique_ptr<Display> display = MakeDisplay(common, options, &feed);
    for (std::uint32_t shown = 0; options.count == 0 || shown < options.count; ++shown) {
      if (shown > 0 && !WaitForNext(interrupts, Clock::now() + interval, display.get())) {
        break;
      }
      Refresh(&feed, shown == 0, display.get());
    }
  } catch (const ClientError& error) {
    if (error.GetKind() != ClientError::Kind::kInterrupted) {
      throw;
    }
  }
  return kExitFine;
}

}  // namespace ipsla::ctl
