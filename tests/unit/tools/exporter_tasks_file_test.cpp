#include <fstream>

#include <gtest/gtest.h>

#include "exporter/tasks_file.h"
#include "support/api_fixture.h"
#include "support/temporary_directory.h"

namespace ipsla::exporter {
namespace {

void Write(const std::filesystem::path& path, const std::string& elements) {
  std::ofstream(path) << "{\"IP-SLA-tasks\":[" << elements << "],\"cpus\":[]}";
}

TEST(ExporterTasksFile, GivesThePlanOfEachTask) {
  const test::TemporaryDirectory directory;
  const auto path = directory / "tasks.json";
  Write(path, test::TaskEntry{.id = 4}.Json());
  TasksFile file(path);
  ASSERT_EQ(file.Plans().size(), 1U);
  EXPECT_EQ(file.Plans().at(4).period_s, 3600);
  EXPECT_EQ(file.Plans().at(4).dscp, 0);
}

TEST(ExporterTasksFile, IsReadAgainWhenItChanges) {
  const test::TemporaryDirectory directory;
  const auto path = directory / "tasks.json";
  TasksFile file(path);
  EXPECT_TRUE(file.Plans().empty()) << "it is not there yet";
  Write(path, test::TaskEntry{.id = 4}.Json());
  EXPECT_EQ(file.Plans().size(), 1U);
  Write(path, test::TaskEntry{.id = 4}.Json() + "," + test::TaskEntry{.id = 5}.Json());
  EXPECT_EQ(file.Plans().size(), 2U);
  std::ofstream(path) << "nonsense";
  EXPECT_TRUE(file.Plans().empty());
}

TEST(ExporterTasksFile, IsNothingWithoutAName) {
  EXPECT_TRUE(TasksFile("").Plans().empty());
  EXPECT_TRUE(TasksFile("/run").Plans().empty()) << "a directory";
}

}  // namespace
}  // namespace ipsla::exporter
