#include "main/command_line.h"

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace ipsla {
namespace {

using Action = CommandLine::Action;

CommandLine Parse(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "ip-sla-sender");
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  return ParseCommandLine(static_cast<int>(arguments.size()), pointers.data());
}

struct Case {
  const char* name;
  std::vector<std::string> arguments;
  Action action;
  const char* tasks_file;
  const char* keychain_file;
};

class CommandLineTest : public testing::TestWithParam<Case> {};

TEST_P(CommandLineTest, ReadsOptions) {
  const CommandLine line = Parse(GetParam().arguments);
  EXPECT_EQ(line.action, GetParam().action);
  EXPECT_EQ(line.tasks_file, GetParam().tasks_file);
  EXPECT_EQ(line.keychain_file, GetParam().keychain_file);
}

const Case kCases[] = {
    {"BothFiles", {"-f", "t.json", "-k", "k.json"}, Action::kRun, "t.json", "k.json"},
    {"ArgumentsWithoutABlank", {"-ft.json", "-kk.json"}, Action::kRun, "t.json", "k.json"},
    {"MissingNamesStayEmpty", {}, Action::kRun, "", ""},
    {"LaterNamesReplaceEarlierOnes",
     {"-f", "a", "-k", "b", "-f", "c", "-k", "d"},
     Action::kRun,
     "c",
     "d"},
    {"OtherWordsAreIgnored", {"word", "-f", "t.json"}, Action::kRun, "t.json", ""},
    {"VersionAtOnce", {"-v", "-x"}, Action::kPrintVersion, "", ""},
    {"VersionBehindOthers", {"-f", "t.json", "-v"}, Action::kPrintVersion, "t.json", ""},
    {"BadOptionBeforeVersion", {"-x", "-v"}, Action::kPrintUsage, "", ""},
    {"BadOption", {"-f", "t.json", "-h"}, Action::kPrintUsage, "t.json", ""},
    {"MissingTasksFile", {"-f"}, Action::kPrintUsage, "", ""},
    {"MissingKeychainFile", {"-f", "t.json", "-k"}, Action::kPrintUsage, "t.json", ""},
};

INSTANTIATE_TEST_SUITE_P(Table, CommandLineTest, testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

TEST(CommandLineTextTest, NamesWordsThatAreNotRead) {
  EXPECT_EQ(SurplusText(Parse({"-f", "t.json", "-k", "k.json"})), "");
  EXPECT_EQ(SurplusText(Parse({"start", "-f", "t.json"})), "surplus argument 'start' is not read");
  EXPECT_EQ(SurplusText(Parse({"a", "-k", "k.json", "--", "-v"})),
            "surplus arguments 'a' '-v' are not read");
}

TEST(CommandLineTextTest, NamesMissingOptions) {
  EXPECT_EQ(MissingText(Parse({"-f", "t.json", "-k", "k.json"})), "");
  EXPECT_EQ(MissingText(Parse({"-k", "k.json"})), "missing: -f with the tasks file");
  EXPECT_EQ(MissingText(Parse({"-f", "t.json"})), "missing: -k with the keychain file");
  EXPECT_EQ(MissingText(Parse({})),
            "missing: -f with the tasks file and -k with the keychain file");
}

TEST(CommandLineTextTest, BannerNamesVersionDateAndTime) {
  const std::regex shape(
      R"(IP SLA module version R1\.0\.0-78d40e7-dirty \(compiled [A-Z][a-z]{2} [ 0-9]\d \d{4} @ \d\d:\d\d:\d\d\)\n)");
  EXPECT_TRUE(std::regex_match(VersionBanner(), shape)) << VersionBanner();
}

TEST(CommandLineTextTest, UsageNamesTheProgramAndTheTypes) {
  EXPECT_EQ(
      UsageText("/usr/sbin/x"),
      "usage syntax: /usr/sbin/x -f [IP SLA tasks configuration file] -k [keychain configuration "
      "file]\n"
      "available type of measurement:\n - udp echo\n - udp jitter\n - udp jitter [ntp timestamp]\n"
      " - icmp echo\n - icmp jitter\n");
}

}  // namespace
}  // namespace ipsla
