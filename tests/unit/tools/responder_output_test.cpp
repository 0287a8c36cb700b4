// What the responder prints, and through what.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "responder/line_output.h"
#include "responder/report.h"

namespace ipsla::responder {
namespace {

using testing::ElementsAre;

TEST(Report, LeavesOutLinesBeyondTheRateAndSaysSo) {
  std::vector<std::string> lines;
  Report report([&lines](const std::string& line) { lines.push_back(line); }, false);
  for (int i = 0; i < kSessionLines.burst + 7; ++i) {
    report.Session(0, [] { return std::string("a session"); });
  }
  EXPECT_EQ(lines.size(), static_cast<std::size_t>(kSessionLines.burst));
  EXPECT_EQ(report.LeftOut(), 7U);
  lines.clear();
  report.Line("always");
  report.Session(1'000'000'000, [] { return std::string("another"); });
  report.Session(1'000'000'000, [] { return std::string("and one more"); });
  EXPECT_THAT(lines,
              ElementsAre("always", "7 lines about sessions left out", "another", "and one more"));
}

TEST(Report, TellsDetailsOnlyWhereTheyAreWanted) {
  for (const bool verbose : {false, true}) {
    std::vector<std::string> lines;
    Report report([&lines](const std::string& line) { lines.push_back(line); }, verbose);
    report.Detail(0, [] { return std::string("a detail"); });
    EXPECT_EQ(lines.size(), verbose ? 1U : 0U);
    EXPECT_EQ(report.LeftOut(), 0U);
  }
}

TEST(Report, SurvivesWantOfMemory) {
  Report report([](const std::string&) { throw std::bad_alloc(); }, true);
  report.Line("a line");
  report.Session(0, [] { return std::string("a session"); });
  report.Detail(0, []() -> std::string { throw std::bad_alloc(); });
  EXPECT_EQ(report.LeftOut(), 3U);
}

class LineOutputTest : public testing::Test {
 protected:
  LineOutputTest() {
    EXPECT_EQ(pipe2(ends_, O_CLOEXEC | O_NONBLOCK), 0);
    // The writing end of the responder's output waits.
    EXPECT_EQ(fcntl(ends_[1], F_SETFL, 0), 0);
  }
  ~LineOutputTest() override {
    close(ends_[0]);
    close(ends_[1]);
  }

  std::string Read() {
    std::string text(1 << 20, '\0');
    const ssize_t bytes = read(ends_[0], text.data(), text.size());
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(bytes, 0)));
    return text;
  }

  int ends_[2] = {-1, -1};
};

TEST_F(LineOutputTest, WritesLines) {
  LineOutput output(ends_[1]);
  output.Write("one");
  output.Write("two");
  EXPECT_EQ(Read(), "one\ntwo\n");
}

TEST_F(LineOutputTest, DoesNotWaitForAReaderAndCountsWhatWasLost) {
  LineOutput output(ends_[1]);
  for (int i = 0; i < 10000; ++i) output.Write(std::string(99, 'x'));
  const std::string whole = Read();
  EXPECT_EQ(whole.size() % 100, 0U);
  const std::size_t lost = 10000 - whole.size() / 100;
  EXPECT_GT(lost, 0U);
  output.Write("again");
  EXPECT_EQ(Read(), std::to_string(lost) + " lines lost: nobody reads them\nagain\n");
}

TEST_F(LineOutputTest, SurvivesAReaderThatIsGone) {
  const auto before = std::signal(SIGPIPE, SIG_IGN);
  LineOutput output(ends_[1]);
  close(ends_[0]);
  for (int i = 0; i < 3; ++i) output.Write("to nobody");
  ends_[0] = -1;
  std::signal(SIGPIPE, before);
}

}  // namespace
}  // namespace ipsla::responder
