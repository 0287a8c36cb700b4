#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "ctl/commands.h"
#include "ctl/interrupts.h"
#include "ctl/terminal.h"
#include "ctl/watch_changes.h"

namespace ipsla::ctl {
namespace {

using client::ClientError;
using client::SenderClient;

/// Shows each refresh as its kind of output wants it.
class Display {
 public:
  Display(const CommonOptions& common, const WatchOptions& options)
      : common_(common), options_(options) {
    if (IsScreen()) {
      fmt::print("\x1b[?25l\x1b[2J");
    }
  }
  ~Display() {
    if (IsScreen()) {
      fmt::print("\x1b[?25h");
    }
    std::fflush(stdout);
  }
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;

  void Show(const Collected& collected) {
    trouble_.clear();
    if (common_.json) {
      fmt::print("{}\n", CollectedJson(collected));
    } else if (IsScreen()) {
      TextTable table = TaskTable(collected.tasks, Now());
      if (table_) {
        MarkChanges(*table_, &table);
      }
      Draw(collected, table);
      table_ = TaskTable(collected.tasks, Now());
    } else {
      const std::vector<TaskView> none;
      for (const std::string& line :
           ChangeLines(last_ ? last_->tasks : none, collected.tasks, Now())) {
        fmt::print("{}\n", line);
      }
    }
    last_ = collected;
    std::fflush(stdout);
  }

  /// A refresh that failed: the last tasks stay.
  void ShowTrouble(const std::string& text) {
    const bool is_new = trouble_ != text;
    trouble_ = text;
    if (IsScreen()) {
      Draw(last_.value_or(Collected{}), table_.value_or(TextTable{}));
      std::fflush(stdout);
    } else if (is_new) {
      fmt::print(stderr, "ip-sla-ctl: {}\n", text);
    }
  }

 private:
  [[nodiscard]] bool IsScreen() const { return terminal_.is_terminal && !common_.json; }

  void Draw(const Collected& collected, const TextTable& table) const {
    const Terminal terminal = StandardOutput();
    const auto failing = std::count_if(collected.tasks.begin(), collected.tasks.end(),
                                       [](const TaskView& t) { return t.Failed(); });
    std::vector<std::string> lines{
        fmt::format("{:%H:%M:%S}  tasks {}, failing {}, every {} s; Ctrl-C ends",
                    fmt::localtime(Now()), collected.tasks.size(), failing, options_.interval)};
    lines.push_back(trouble_.empty() ? "" : Styled(trouble_, CellStyle::kBad, terminal.colour));
    if (!table.rows.empty()) {
      const auto rows = RenderTable(table, terminal.Layout());
      lines.insert(lines.end(), rows.begin(), rows.end());
    }
    if (terminal.height > 3 && lines.size() > terminal.height - 1) {
      const std::size_t hidden = lines.size() - (terminal.height - 2);
      lines.resize(terminal.height - 2);
      lines.push_back(fmt::format("({} more lines)", hidden));
    }
    fmt::print("\x1b[H");
    for (const std::string& line : lines) {
      fmt::print("{}\x1b[K\n", line);
    }
    fmt::print("\x1b[J");
  }

  const CommonOptions& common_;
  const WatchOptions& options_;
  const Terminal terminal_ = StandardOutput();
  std::optional<Collected> last_;
  std::optional<TextTable> table_;  // as last shown, without marks
  std::string trouble_;
};

/// One refresh; kInterrupted passes through, and so does anything at the first one.
void Refresh(const SenderClient& sender, const WatchOptions& options, bool is_first,
             Display* display) {
  try {
    display->Show(Collect(sender, options.selection, MetricGroupNames()));
  } catch (const ClientError& error) {
    if (is_first || error.GetKind() == ClientError::Kind::kInterrupted) {
      throw;
    }
    display->ShowTrouble(error.what());
  }
}

}  // namespace

int RunWatch(const CommonOptions& common, const WatchOptions& options) {
  const Interrupts interrupts;
  client::ClientOptions client_options = common.client;
  client_options.interrupt_fd = interrupts.Fd();
  const SenderClient sender(client_options);
  const auto interval =
      std::chrono::milliseconds(static_cast<std::int64_t>(options.interval * 1000));
  try {
    if (!options.selection.ids.empty()) {
      const Collected known = Collect(sender, options.selection, {});
      if (!known.unknown.empty()) {
        ReportUnknown(known);
        return kExitUsage;
      }
    }
    Display display(common, options);
    for (std::uint32_t shown = 0; options.count == 0 || shown < options.count; ++shown) {
      if (shown > 0 && interrupts.WaitFor(interval)) {
        break;
      }
      Refresh(sender, options, shown == 0, &display);
    }
  } catch (const ClientError& error) {
    if (error.GetKind() != ClientError::Kind::kInterrupted) {
      throw;
    }
  }
  return kExitFine;
}

}  // namespace ipsla::ctl
