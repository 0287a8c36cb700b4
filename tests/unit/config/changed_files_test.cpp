// Every truncation and single-byte changes of the example files.

#include <fstream>
#include <sstream>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "config/config_file.h"
#include "config/keychain_rules.h"
#include "config/task_parser.h"
#include "support/mutations.h"
#include "support/paths.h"

namespace ipsla {
namespace {

using FileBytes = std::vector<std::uint8_t>;

std::string ExampleText(const std::string& name) {
  std::ifstream in(test::SourcePath("examples/" + name));
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string_view AsText(const FileBytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Reads the tasks as the daemon does; both users of the rules must agree on each.
std::size_t CountTasks(std::string_view text) {
  const ConfigFile file = ReadConfigText(text, "IP-SLA-tasks");
  const KeychainStorage keys{{1, "one"}, {5, "five"}};
  SlaTaskMap accepted;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, file.array) {
    const TaskParse task = ParseTask(element, accepted, keys, ConfiguredInterface);
    const TaskCheck check = CheckTask(element, accepted, &keys, ConfiguredInterface);
    EXPECT_EQ(task.Accepted(), check.faults.empty() && !check.abandoned) << text;
    if (task.fault) {
      EXPECT_EQ(check.faults.front().reason, *task.fault) << text;
    }
    if (task.Accepted()) accepted[task.config.sla_id] = task.config;
  }
  return accepted.size();
}

std::size_t CountKeys(std::string_view text) {
  const ConfigFile file = ReadConfigText(text, "keychain-storage");
  KeychainStorage keys;
  if (file.array != nullptr) static_cast<void>(ReadKeys(file.array, &keys));
  return keys.size();
}

// Without the blanks at its end: a file that lacks only these is whole.
std::span<const std::uint8_t> Trimmed(std::string_view text) {
  const std::size_t end = text.find_last_not_of(" \n");
  return {reinterpret_cast<const std::uint8_t*>(text.data()), end + 1};
}

template <typename Count>
void ExpectNothingOfTruncations(std::string_view whole, const Count& count) {
  ASSERT_GT(count(whole), 0U);
  test::ForEachTruncation(Trimmed(whole), [&](const FileBytes& bytes) {
    ASSERT_EQ(count(AsText(bytes)), 0U) << AsText(bytes);
  });
}

TEST(ChangedFilesTest, NoTaskOfATruncatedFileIsTaken) {
  ExpectNothingOfTruncations(ExampleText("tasks.json"), CountTasks);
}

TEST(ChangedFilesTest, NoKeyOfATruncatedFileIsTaken) {
  ExpectNothingOfTruncations(ExampleText("keychain.json"), CountKeys);
}

TEST(ChangedFilesTest, ChangedTasksAreTakenOrNamedAndNoMoreThanThereAre) {
  const std::string whole = ExampleText("tasks.json");
  const std::size_t tasks = CountTasks(whole);
  test::ForEachTextChange(whole, [&](const FileBytes& bytes, std::size_t) {
    ASSERT_LE(CountTasks(AsText(bytes)), tasks);
  });
}

TEST(ChangedFilesTest, ChangedKeysAreNoMoreThanThereAre) {
  const std::string whole = ExampleText("keychain.json");
  const std::size_t keys = CountKeys(whole);
  test::ForEachTextChange(whole, [&](const FileBytes& bytes, std::size_t) {
    ASSERT_LE(CountKeys(AsText(bytes)), keys);
  });
}

}  // namespace
}  // namespace ipsla
