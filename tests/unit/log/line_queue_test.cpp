#include "log/line_queue.h"

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ipsla::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::chrono::steady_clock::time_point In(std::chrono::milliseconds time) {
  return std::chrono::steady_clock::now() + time;
}

// What stands behind the place for the time, without the newline.
std::string TextOf(const LogLine& line) {
  const std::string_view bytes(line.bytes.data(), line.bytes.size());
  EXPECT_EQ(bytes.back(), '\n');
  return std::string(bytes.substr(LogLine::kTimeBytes, bytes.size() - LogLine::kTimeBytes - 1));
}

std::vector<std::string> TakeTexts(LineQueue& queue) {
  std::vector<LogLine> lines;
  std::vector<std::string> texts;
  if (!queue.Take(&lines)) return texts;
  for (const LogLine& line : lines) texts.push_back(std::to_string(line.id) + " " + TextOf(line));
  queue.Done();
  return texts;
}

TEST(LineQueueTest, GivesLinesInTheirOrder) {
  LineQueue queue;
  queue.Push(0, "first");
  queue.Push(65535, "");
  queue.Push(0, "third");
  EXPECT_THAT(TakeTexts(queue), ElementsAre("0 first", "65535 ", "0 third"));
}

TEST(LineQueueTest, GivesWhatIsLeftAfterItWasClosedAndNothingMore) {
  LineQueue queue;
  queue.Push(1, "before");
  queue.Close();
  queue.Push(1, "after");
  EXPECT_THAT(TakeTexts(queue), ElementsAre("1 before"));
  EXPECT_THAT(TakeTexts(queue), IsEmpty());
}

TEST(LineQueueTest, TakesTextsOfAnyLength) {
  LineQueue queue;
  std::vector<std::string> expected;
  for (const std::size_t length : {0U, 1U, 65000U, 65536U, 1000000U, 5U}) {
    const std::string text(length, 'x');
    queue.Push(7, text);
    expected.push_back("7 " + text);
  }
  queue.Close();
  std::vector<std::string> taken;
  for (auto texts = TakeTexts(queue); !texts.empty(); texts = TakeTexts(queue)) {
    taken.insert(taken.end(), texts.begin(), texts.end());
  }
  EXPECT_EQ(taken, expected);
}

TEST(LineQueueTest, WaitsUntilLinesAreDoneNotTaken) {
  LineQueue queue;
  EXPECT_TRUE(queue.WaitUntilDone(In(std::chrono::milliseconds(0)))) << "there is nothing to do";
  queue.Push(1, "line");
  EXPECT_FALSE(queue.WaitUntilDone(In(std::chrono::milliseconds(0))));
  std::vector<LogLine> lines;
  ASSERT_TRUE(queue.Take(&lines));
  EXPECT_FALSE(queue.WaitUntilDone(In(std::chrono::milliseconds(10))));
  std::thread waiting([&] {
    EXPECT_TRUE(queue.WaitUntilDone(In(std::chrono::seconds(20)))) << "while it is done";
  });
  queue.Done();
  waiting.join();
}

// Its rest lets lines gather, but keeps nobody waiting who wants them written.
TEST(LineQueueTest, DoesNotRestWhileSomebodyWaits) {
  LineQueue queue;
  std::thread taker([&] {
    while (!TakeTexts(queue).empty()) continue;
  });
  const auto begin = std::chrono::steady_clock::now();
  constexpr int kRounds = 500;
  for (int i = 0; i < kRounds; ++i) {
    queue.Push(1, "line");
    ASSERT_TRUE(queue.WaitUntilDone(In(std::chrono::seconds(20))));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kRounds * LineQueue::kRest / 2);
  queue.Close();
  taker.join();
}

TEST(LineQueueTest, SaysWhereLinesOfEachFileAreMissing) {
  LineQueue queue;
  const std::string text(1000000, 'x');
  std::map<std::uint16_t, int> kept;
  for (int i = 0; i < 30; ++i) queue.Push(static_cast<std::uint16_t>(i % 2), text);
  queue.Push(0, "no room for a short one either");
  // The long lines of each file come first, then what was queued behind them.
  std::map<std::uint16_t, std::vector<std::string>> short_lines;
  const auto take = [&] {
    std::vector<LogLine> lines;
    if (!queue.Take(&lines)) return false;
    for (const LogLine& line : lines) {
      const std::string taken = TextOf(line);
      if (taken == text && short_lines[line.id].empty()) {
        ++kept[line.id];
      } else {
        short_lines[line.id].push_back(taken);
      }
    }
    queue.Done();
    return true;
  };
  while (kept[0] + kept[1] < 16 && take()) continue;
  queue.Push(0, "goes on");
  queue.Push(1, "goes on");
  queue.Close();
  while (take()) continue;
  EXPECT_EQ(kept[0] + kept[1], 16) << "as many as fit into 16 MiB";
  EXPECT_THAT(short_lines[0],
              ElementsAre(std::to_string(15 - kept[0] + 1) + " lines dropped", "goes on"));
  EXPECT_THAT(short_lines[1],
              ElementsAre(std::to_string(15 - kept[1]) + " lines dropped", "goes on"));
}

// Nothing else waits then, so that no end of a batch would ever make it go on.
TEST(LineQueueTest, GoesOnAfterALineThatIsLongerThanAllTheRoom) {
  LineQueue queue;
  queue.Push(3, std::string(LineQueue::kMaxBytes, 'x'));
  queue.Push(3, "goes on");
  queue.Close();
  EXPECT_THAT(TakeTexts(queue), ElementsAre("3 1 lines dropped", "3 goes on"));
}

TEST(LineQueueTest, KeepsTheOrderOfManyThreads) {
  LineQueue queue;
  constexpr int kThreads = 4;
  constexpr int kLines = 5000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&queue, t] {
      for (int i = 0; i < kLines; ++i) queue.Push(static_cast<std::uint16_t>(t), std::to_string(i));
    });
  }
  std::vector<int> next(kThreads);
  for (int taken = 0; taken < kThreads * kLines;) {
    std::vector<LogLine> lines;
    ASSERT_TRUE(queue.Take(&lines));
    for (const LogLine& line : lines) ASSERT_EQ(TextOf(line), std::to_string(next.at(line.id)++));
    taken += static_cast<int>(lines.size());
    queue.Done();
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace ipsla::test
