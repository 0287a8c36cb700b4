// The table of all faults: each has its reason, and of two the earlier check wins.

#include "config/task_faults.h"

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "support/paths.h"

namespace ipsla {
namespace {

using test::Check;
using test::Edit;
using test::FaultCase;
using test::Reason;
using test::Rows;

class TaskFaultTest : public testing::TestWithParam<FaultCase> {};

TEST_P(TaskFaultTest, SkipsTheTaskWithItsReason) {
  EXPECT_EQ(Reason(GetParam().edits), GetParam().fault.reason);
}

TEST_P(TaskFaultTest, NamesPlaceAndValueToAChecker) {
  const std::vector<TaskFault> faults = Check(GetParam().edits).faults;
  ASSERT_EQ(faults.size(), 1U);
  EXPECT_EQ(faults[0].key, GetParam().fault.key);
  EXPECT_EQ(faults[0].value, GetParam().fault.value);
  EXPECT_EQ(faults[0].reason, GetParam().fault.reason);
}

TEST_P(TaskFaultTest, IsDocumented) {
  std::ifstream in(test::SourcePath("docs/configuration.md"));
  std::stringstream manual;
  manual << in.rdbuf();
  EXPECT_NE(manual.str().find("`" + GetParam().fault.reason + "`"), std::string::npos)
      << GetParam().fault.reason;
}

std::string RowName(const testing::TestParamInfo<FaultCase>& info) {
  std::string name = info.param.name;
  std::erase(name, '-');
  return name;
}

INSTANTIATE_TEST_SUITE_P(EveryCheck, TaskFaultTest, testing::ValuesIn(Rows()), RowName);

// True when `path` is inside `object`, so that replacing the object undoes an edit of the path.
bool IsInside(const std::string& path, const std::string& object) {
  return path.starts_with(object + ".");
}

bool Undoes(const std::vector<Edit>& later, const std::vector<Edit>& earlier) {
  for (const Edit& a : later) {
    for (const Edit& b : earlier) {
      if (IsInside(b.path, a.path)) return true;
    }
  }
  return false;
}

TEST(TaskFaultsTest, OfTwoFaultsTheEarlierCheckWins) {
  const std::vector<FaultCase> rows = Rows();
  std::size_t pairs = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    for (std::size_t j = i + 1; j < rows.size(); ++j) {
      if (Undoes(rows[j].edits, rows[i].edits)) continue;  // no task can have both faults
      std::vector<Edit> edits = rows[j].edits;
      edits.insert(edits.end(), rows[i].edits.begin(), rows[i].edits.end());
      EXPECT_EQ(Reason(edits), rows[i].fault.reason) << rows[i].name << " and " << rows[j].name;
      ++pairs;
    }
  }
  EXPECT_GT(pairs, rows.size() * rows.size() / 3);
}

TEST(TaskFaultsTest, CheckerNamesFirstWhatTheDaemonStopsAt) {
  const std::vector<FaultCase> rows = Rows();
  for (std::size_t i = 0; i + 1 < rows.size(); ++i) {
    std::vector<Edit> edits = rows[i + 1].edits;
    if (Undoes(edits, rows[i].edits)) continue;
    edits.insert(edits.end(), rows[i].edits.begin(), rows[i].edits.end());
    const TaskCheck check = Check(edits);
    ASSERT_FALSE(check.faults.empty()) << rows[i].name;
    EXPECT_EQ(check.faults.front().reason, Reason(edits))
        << rows[i].name << " and " << rows[i + 1].name;
  }
}

TEST(TaskFaultsTest, ChecksTheAlgorithmBeforeTheKeyId) {
  const std::string key_id_too = R"({"mode":"keychain","algorithm":"md5","key-id":"x"})";
  EXPECT_EQ(Reason({{"control-phase.authentication", key_id_too}}),
            "invalid authentication algorithm configuration");
  const std::string without = R"({"mode":"keychain","key-id":99})";
  EXPECT_EQ(Reason({{"control-phase.authentication", without}}),
            "no control phase authentication algorithm configuration");
}

}  // namespace
}  // namespace ipsla
