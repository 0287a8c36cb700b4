// Every truncation and single-byte changes of what a responder sends: the run ends as the bytes
// say.

#include <boost/smart_ptr/make_shared.hpp>
#include <gtest/gtest.h>

#include "config/names.h"
#include "log/error_limiter.h"
#include "support/mutations.h"
#include "support/recording_syslog.h"
#include "support/scripted_responder.h"
#include "support/test_context.h"
#include "udp/udp_sender.h"

namespace ipsla {
namespace {

using test::BigEndianAt;
using ResponseBytes = std::vector<std::uint8_t>;

constexpr std::uint16_t kChangedId = 61;
constexpr const char* kNoSamples = "timeout, no samples";

class ChangedResponseTest : public testing::Test {
 protected:
  ChangedResponseTest() { RemoveErrorLimits(kChangedId); }
  ~ChangedResponseTest() override { static_cast<void>(test::TakeSyslog()); }

  // A run that is answered ends with the answer, however long a slow machine takes for it.
  SlaTaskMetrics Run(bool is_answered) {
    SlaTaskConfig task = test::LoopbackTask(kChangedId, SlaTestType::kUdpJitter);
    task.control_phase.dst.sin_port = htons(responder.ControlPort());
    task.packet_size = 58;
    task.num_packets = 1;
    task.timeout = is_answered ? 900 : 5;  // milliseconds
    const auto test = boost::make_shared<UdpSender>(context.worker, task, context.Shared());
    const std::uint32_t before = context.RunsOf(kChangedId);
    test->Schedule();
    EXPECT_TRUE(context.RunUntil([&] { return context.RunsOf(kChangedId) > before; }));
    test->Stop(true);
    if (++runs % 256 == 0) static_cast<void>(test::TakeSyslog());
    return context.StatisticsOf(kChangedId).last;
  }

  // What the run must report whose control phase is answered with these bytes; nothing when it
  // depends on who listens on the port that they name.
  std::optional<std::string> Expected(const ResponseBytes& bytes) {
    if (bytes.empty()) return "";
    if (BigEndianAt(bytes, 0, 1) != 2) {
      return "control phase failed: invalid response control phase protocol version";
    }
    const auto status = BigEndianAt(bytes, 2, 2);
    const auto authentication = BigEndianAt(bytes, 22, 2);
    const auto measurement = BigEndianAt(bytes, 82, 2);
    if (status == 0) {
      if (BigEndianAt(bytes, 166, 2) != responder.MeasurementPort()) return std::nullopt;
      return "";
    }
    const auto name = [](std::uint64_t value) {
      return ControlStatusToString(static_cast<SlaControlStatus>(value));
    };
    if (measurement != 0) return "control phase measurement failed: " + name(measurement);
    if (authentication != 0) return "control phase authentication failed: " + name(authentication);
    if (status != 1) return "control phase failed: command header status: " + name(status);
    return "";
  }

  void Check(const ResponseBytes& answer) {
    responder.control = [&answer](const auto&) { return std::vector<ResponseBytes>{answer}; };
    const auto expected = Expected(answer);
    const SlaTaskMetrics last = Run(expected.has_value());
    ASSERT_EQ(last.error_description, expected.value_or(kNoSamples)) << "size " << answer.size();
    const bool is_good = expected == "" && answer.size() > 3 && BigEndianAt(answer, 2, 2) == 0;
    ASSERT_EQ(last.status, is_good ? RunResult::kSuccessful : RunResult::kFail);
  }

  test::TestContext context;
  test::ScriptedResponder responder{context.worker};
  int runs = 0;
};

TEST_F(ChangedResponseTest, EveryTruncationIsReadAsFarAsItGoes) {
  test::ForEachTruncation(responder.Accept(), [this](const ResponseBytes& part) { Check(part); });
}

// A byte that the sender looks at takes every other value, the others take a few.
TEST_F(ChangedResponseTest, TheRunEndsAsTheStatusesSay) {
  const ResponseBytes accepted = responder.Accept();
  ResponseBytes refused = accepted;
  refused[3] = 1;
  ResponseBytes changed;
  for (const ResponseBytes& whole : {accepted, refused}) {
    for (const std::size_t offset : {0U, 2U, 3U, 22U, 23U, 82U, 83U}) {
      changed = whole;
      for (unsigned step = 1; step < 256; ++step) {
        changed[offset] = static_cast<std::uint8_t>(whole[offset] + step);
        Check(changed);
      }
    }
  }
}

TEST_F(ChangedResponseTest, OtherBytesChangeNothing) {
  const ResponseBytes accepted = responder.Accept();
  for (std::size_t offset = 0; offset < accepted.size(); ++offset) {
    if (offset == 166 || offset == 167) continue;
    ResponseBytes changed = accepted;
    for (const unsigned flipped : {0x01U, 0x80U}) {
      changed[offset] = static_cast<std::uint8_t>(accepted[offset] ^ flipped);
      Check(changed);
    }
  }
}

// A reply of another type is none; whatever else it says, it is one reply at most.
TEST_F(ChangedResponseTest, ChangedRepliesToProbesCountOnceAtMost) {
  for (std::size_t offset = 0; offset < 58; ++offset) {
    for (const unsigned flipped : {0x01U, 0x02U, 0x40U, 0x80U, 0xFFU}) {
      responder.probe = [&](const ResponseBytes& probe) {
        ResponseBytes reply = responder.Reply(probe);
        reply[offset] = static_cast<std::uint8_t>(reply[offset] ^ flipped);
        return std::vector<ResponseBytes>{reply};
      };
      const SlaTaskMetrics last = Run(offset >= 2);
      ASSERT_EQ(last.ds_pkt_count, offset < 2 ? 0 : 1) << offset;
      ASSERT_EQ(last.error_description, offset < 2 ? kNoSamples : "") << offset;
    }
  }
}

TEST_F(ChangedResponseTest, TruncatedRepliesToProbesCountOnceAtMost) {
  for (std::size_t size = 0; size < 58; ++size) {
    responder.probe = [&](const ResponseBytes& probe) {
      ResponseBytes reply = responder.Reply(probe);
      reply.resize(size);
      return std::vector<ResponseBytes>{reply};
    };
    ASSERT_EQ(Run(size >= 2).ds_pkt_count, size < 2 ? 0 : 1) << size;
  }
}

}  // namespace
}  // namespace ipsla
