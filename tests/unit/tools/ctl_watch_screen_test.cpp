#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/display_text.h"
#include "ctl/watch_keys.h"
#include "ctl/watch_screen.h"
#include "tools/ctl_tasks.h"

namespace ipsla::ctl {
namespace {

using testing::ElementsAre;

TEST(WatchKeys, AreReadFromWhatATerminalSends) {
  KeyReader keys;
  EXPECT_THAT(keys.Feed("\x1b[A\x1b[B\x1bOA\x1b[5~\x1b[6~"),
              ElementsAre(Key::kUp, Key::kDown, Key::kUp, Key::kPageUp, Key::kPageDown));
  EXPECT_THAT(keys.Feed("\x1b[H\x1b[F kjbgGq"),
              ElementsAre(Key::kFirst, Key::kLast, Key::kPageDown, Key::kUp, Key::kDown,
                          Key::kPageUp, Key::kFirst, Key::kLast, Key::kQuit));
}

TEST(WatchKeys, MayComeInParts) {
  KeyReader keys;
  EXPECT_THAT(keys.Feed("\x1b"), ElementsAre());
  EXPECT_THAT(keys.Feed("["), ElementsAre());
  EXPECT_THAT(keys.Feed("6"), ElementsAre());
  EXPECT_THAT(keys.Feed("~q"), ElementsAre(Key::kPageDown, Key::kQuit));
}

TEST(WatchKeys, DropOthers) {
  KeyReader keys;
  EXPECT_THAT(keys.Feed("x\x1b[15~y\x1b[1;5Cö\x1bxq"), ElementsAre(Key::kQuit));
}

/// Tasks 1 to `count`, the failing ones first in the order of the rows.
ScreenContent Content(std::int32_t count, std::int32_t failing = 0) {
  ScreenContent content{.title = "title", .rules = {.now = test::kNow}};
  for (std::int32_t id = 1; id <= count; ++id) {
    TaskView task = id <= failing ? test::FailedTask() : test::JitterTask();
    task.id = id;
    content.tasks.push_back(task);
  }
  content.table = TaskTable(content.tasks, content.rules);
  return content;
}

std::set<std::int32_t> Ids(std::int32_t first, std::int32_t last) {
  std::set<std::int32_t> ids;
  for (std::int32_t id = first; id <= last; ++id) {
    ids.insert(id);
  }
  return ids;
}

TEST(WatchScreen, ShowsAllThatHasRoom) {
  WatchScreen screen;
  ScreenContent content = Content(3);
  content.remarks = {"remark"};
  const auto lines = screen.Draw(content, {}, 20);
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[0], "title");
  EXPECT_EQ(lines[1], "") << "the place of trouble";
  EXPECT_EQ(lines[6], "remark");
  EXPECT_EQ(screen.Visible(), Ids(1, 3));
}

TEST(WatchScreen, SaysWhatIsOutOfSight) {
  WatchScreen screen;
  const ScreenContent content = Content(20, 8);
  const auto lines = screen.Draw(content, {}, 10);  // three lines above, one below, two per failure
  ASSERT_EQ(lines.size(), 10U);
  EXPECT_EQ(lines.back(), "rows 1-3 of 20, 5 failing out of sight; arrows, page keys, q");
  EXPECT_EQ(screen.Visible(), Ids(1, 3));
}

TEST(WatchScreen, Scrolls) {
  WatchScreen screen;
  const ScreenContent content = Content(20);
  const auto after = [&](Key key) {
    screen.Move(key);
    (void)screen.Draw(content, {}, 14);  // ten rows
    return screen.Visible();
  };
  (void)screen.Draw(content, {}, 14);
  EXPECT_EQ(screen.Visible(), Ids(1, 10));
  EXPECT_EQ(after(Key::kUp), Ids(1, 10));
  EXPECT_EQ(after(Key::kDown), Ids(2, 11));
  EXPECT_EQ(after(Key::kPageDown), Ids(11, 20)) << "not beyond the last";
  EXPECT_EQ(after(Key::kUp), Ids(10, 19));
  EXPECT_EQ(after(Key::kPageUp), Ids(1, 10));
  EXPECT_EQ(after(Key::kLast), Ids(11, 20));
  EXPECT_EQ(after(Key::kFirst), Ids(1, 10));
}

TEST(WatchScreen, ComesBackWhenTasksAreGone) {
  WatchScreen screen;
  (void)screen.Draw(Content(20), {}, 14);
  screen.Move(Key::kLast);
  (void)screen.Draw(Content(20), {}, 14);
  (void)screen.Draw(Content(3), {}, 14);
  EXPECT_EQ(screen.Visible(), Ids(1, 3));
  (void)screen.Draw(Content(0), {}, 14);
  EXPECT_EQ(screen.Visible(), Ids(1, 0));
}

TEST(WatchScreen, FitsAnyTerminal) {
  for (const std::size_t width : {1U, 2U, 10U, 40U, 80U}) {
    for (const std::size_t height : {1U, 2U, 3U, 4U, 5U, 24U}) {
      WatchScreen screen;
      ScreenContent content = Content(20, 2);
      content.title = std::string(100, 't');
      content.trouble = std::string(100, 'x');
      content.remarks = {std::string(100, 'r'), std::string(90, 's')};
      const auto lines = screen.Draw(content, {.width = width}, height);
      EXPECT_LE(lines.size(), height);
      for (const std::string& line : lines) {
        EXPECT_LE(DisplayWidth(line), width) << line;
      }
    }
  }
}

}  // namespace
}  // namespace ipsla::ctl
