#include <gtest/gtest.h>

#include "client/usage_fault.h"

namespace ipsla::client {
namespace {

const std::vector<std::string> kCommands{"show", "watch", "status", "reload", "check", "probe"};
const std::vector<std::string> kOptions{"--help", "--json", "--all", "--timeout"};

std::string CommandFault(const std::string& word) {
  return SurplusText({word}, kCommands, kOptions);
}

TEST(UsageFault, NamesAnUnknownCommandAndTheClosest) {
  EXPECT_EQ(CommandFault("foo"), "unknown command 'foo'; did you mean 'show'?");
  EXPECT_EQ(CommandFault("wacth"), "unknown command 'wacth'; did you mean 'watch'?");
  EXPECT_EQ(CommandFault("STATUS"), "unknown command 'STATUS'; did you mean 'status'?");
  EXPECT_EQ(CommandFault(std::string(100, 'x')), "unknown command '" + std::string(100, 'x') + "'");
}

TEST(UsageFault, NamesAnUnknownOption) {
  EXPECT_EQ(SurplusText({"x", "--jsn"}, kCommands, kOptions),
            "unknown option '--jsn'; did you mean '--json'?");
  EXPECT_EQ(SurplusText({"--timeot=3"}, {}, kOptions),
            "unknown option '--timeot=3'; did you mean '--timeout'?");
  EXPECT_EQ(SurplusText({"--nonsense"}, {}, kOptions), "unknown option '--nonsense'");
}

TEST(UsageFault, NamesTheCommandWhoseOptionsAreUnknown) {
  EXPECT_EQ(SurplusText({"wacth", "--dst", "1.2.3.4"}, kCommands, kOptions),
            "unknown command 'wacth'; did you mean 'watch'?");
  EXPECT_EQ(SurplusText({"--dst", "1.2.3.4", "wacth"}, kCommands, kOptions),
            "unknown command 'wacth'; did you mean 'watch'?");
  EXPECT_EQ(SurplusText({"--jsn", "wacth"}, kCommands, kOptions),
            "unknown option '--jsn'; did you mean '--json'?");
  EXPECT_EQ(SurplusText({"--dst", "1.2.3.4"}, kCommands, kOptions), "unknown option '--dst'");
}

TEST(UsageFault, NamesSurplusArguments) {
  EXPECT_EQ(SurplusText({"c"}, {}, kOptions), "surplus argument 'c'");
  EXPECT_EQ(SurplusText({"c", "-"}, {}, kOptions), "surplus arguments 'c' '-'");
}

}  // namespace
}  // namespace ipsla::client
