// The example files and the manual's example, read as the daemon reads them.

#include <fstream>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/keychain.h"
#include "config/scratch_file.h"
#include "config/sender_help_funcs.h"
#include "support/paths.h"
#include "support/recording_syslog.h"

namespace ipsla {
namespace {

using test::ScratchFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string Manual() {
  std::ifstream in(test::SourcePath("docs/configuration.md"));
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The n-th block of JSON in the manual, or nothing.
std::string ManualBlock(int n) {
  constexpr std::string_view kFence = "```json\n";
  const std::string manual = Manual();
  std::size_t begin = 0;
  for (int i = 0; i <= n; ++i) {
    begin = manual.find(kFence, begin);
    if (begin == std::string::npos) return "";
    begin += kFence.size();
  }
  return manual.substr(begin, manual.find("```", begin) - begin);
}

// Both files, read without a fault or a line in the log.
SlaTaskMap ReadFaultless(const std::string& tasks_file, const std::string& keychain_file) {
  static_cast<void>(test::TakeSyslog());
  std::string fault;
  KeychainStorage keychain;
  EXPECT_EQ(ParseKeychainConfig(keychain_file, &keychain, &fault), 0);
  SlaTaskMap tasks;
  std::vector<std::uint8_t> cpus;
  EXPECT_EQ(ParseTaskConfigs(tasks_file, &tasks, keychain, &cpus, &fault), 0);
  EXPECT_EQ(fault, "");
  EXPECT_THAT(test::TakeSyslogTexts(), IsEmpty());
  EXPECT_THAT(cpus, ElementsAre(0));
  return tasks;
}

TEST(ExamplesTest, ShowEveryTypeAuthenticationAndAVrf) {
  const SlaTaskMap tasks = ReadFaultless(test::SourcePath("examples/tasks.json"),
                                         test::SourcePath("examples/keychain.json"));
  std::set<SlaTestType> types;
  std::set<SlaAuthMode> modes;
  std::set<std::string> vrfs;
  std::set<std::string> interfaces;
  for (const auto& [id, task] : tasks) {
    types.insert(task.sla_type);
    modes.insert(task.auth.mode);
    vrfs.insert(task.measurement.vrf);
    interfaces.insert(task.measurement.if_name);
  }
  EXPECT_EQ(types.size(), 5U);
  EXPECT_EQ(modes.size(), 3U);
  EXPECT_THAT(vrfs, ElementsAre("", "blue"));
  EXPECT_THAT(interfaces, ElementsAre("", "eth0"));
}

TEST(ExamplesTest, TheManualsExampleIsAccepted) {
  const ScratchFile keychain(ManualBlock(0));
  const ScratchFile tasks(ManualBlock(1));
  const SlaTaskMap read = ReadFaultless(tasks.Name(), keychain.Name());
  ASSERT_EQ(read.size(), 1U);
  EXPECT_EQ(read.at(4).num_packets, 1000);
}

TEST(ExamplesTest, TheManualNamesEveryFaultOfAFile) {
  for (const char* text :
       {"`invalid SLA tasks configuration filename`", "`invalid keychain configuration filename`",
        "`unable to open configuration file`", "`JSON parse error at line: `",
        "`ivalid configuration`", "`SLA task ID #7 parse skipped: `",
        "`key id #undefined parse skipped: no key configuration`",
        "`key id #5 parse skipped: duplicate key`"}) {
    EXPECT_THAT(Manual(), HasSubstr(text));
  }
}

}  // namespace
}  // namespace ipsla
