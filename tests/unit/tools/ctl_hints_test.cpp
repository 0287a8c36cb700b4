#include <set>

#include <gtest/gtest.h>

#include "config/names.h"
#include "ctl/hints.h"

namespace ipsla::ctl {
namespace {

TEST(Hints, KnowEveryReasonThatARunFailsFor) {
  for (const char* reason :
       {"timeout, no samples", "source address or interface not exist", "Start test failed",
        "control phase failed: internal error",
        "control phase failed: destination host is not responding",
        "control phase failed: connection refused",
        "control phase failed: invalid response control phase protocol version",
        "no usable replies"}) {
    EXPECT_NE(HintFor(reason, SlaTestType::kUdpJitter), "") << reason;
  }
  for (std::uint16_t code = 1; code <= 13; ++code) {
    const std::string name = ControlStatusToString(static_cast<SlaControlStatus>(code));
    for (const char* before :
         {"control phase failed: command header status: ", "control phase authentication failed: ",
          "control phase measurement failed: "}) {
      EXPECT_NE(HintFor(before + name, SlaTestType::kUdpEcho), "") << before << name;
    }
  }
}

TEST(Hints, AreEmptyForUnknownReasons) {
  EXPECT_EQ(HintFor("", SlaTestType::kUdpEcho), "");
  EXPECT_EQ(HintFor("the last run failed", SlaTestType::kNone), "");
}

// A reason behind one that it begins with would never be found.
TEST(Hints, AreAllReached) {
  std::set<std::string_view> hints;
  for (const Hint& hint : Hints()) {
    EXPECT_EQ(HintFor(hint.reason, hint.type), hint.hint) << hint.reason;
    EXPECT_TRUE(hints.insert(hint.hint).second) << hint.hint;
    EXPECT_FALSE(hint.hint.ends_with('.')) << hint.hint;
  }
}

}  // namespace
}  // namespace ipsla::ctl
