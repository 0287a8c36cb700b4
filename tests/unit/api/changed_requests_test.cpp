// Every truncation and every single-byte change of a request to the Sender API: one answer each,
// and the one that the rules demand.

#include <ctime>

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "api/api_server.h"
#include "config/json_text.h"
#include "env/time_values.h"
#include "support/api_client.h"
#include "support/mutations.h"
#include "support/recording_syslog.h"

namespace ipsla {
namespace {

using RequestDatagram = std::vector<std::uint8_t>;

// A clock on which every pause is over before it begins.
SteadyTime HastySteadyTime() {
  static std::chrono::milliseconds passed{0};
  return SteadyTime(++passed);
}

// Not RealTimeNow(): that asks the clocks in use.
timespec SystemRealTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

constexpr Clocks kHasty{.real_time = SystemRealTime, .steady = HastySteadyTime};

class ChangedRequestTest : public testing::Test {
 protected:
  ChangedRequestTest() {
    tasks[1].sla_id = 1;
    tasks[1].schedule = true;
    statistics.tasks[1].successful_count = 4;
    server.Open();
    UseClocks(&kHasty);
  }
  ~ChangedRequestTest() override {
    UseClocks(nullptr);
    static_cast<void>(test::TakeSyslog());
  }

  // Sends it and looks at the answer. Counts the good ones.
  void Check(const RequestDatagram& request) {
    const RequestDatagram reply = client.Exchange(request);
    ASSERT_GE(reply.size(), kApiHeaderSize) << "each request has an answer";
    const ApiHeader asked = DecodeApiHeader(request);
    const ApiHeader answered = DecodeApiHeader(reply);
    ASSERT_EQ(answered.prefix, asked.prefix);
    ASSERT_EQ(answered.command, asked.command);
    if (asked.request_marker != kApiRequestMarker || asked.result != kApiSuccess) {
      ASSERT_EQ(answered.result, kApiFailure);
    }
    if (answered.result != kApiSuccess) {
      ASSERT_EQ(answered.result, kApiFailure);
      ASSERT_EQ(reply.size(), kApiHeaderSize);
    } else if (asked.command <= 2) {
      ASSERT_TRUE(ParseJson(ApiPayloadText(reply)).document);
      ++good;
    } else {
      ASSERT_EQ(reply.size(), kApiHeaderSize);
    }
    if (++checked % 256 == 0) {
      static_cast<void>(test::TakeSyslog());
      ASSERT_FALSE(client.TakeReply()) << "no request has two answers";
    }
  }

  test::ApiClient client;
  SlaTaskMap tasks;
  StatisticsStore statistics;
  int reloads = 0;
  int good = 0;
  int checked = 0;
  ApiServer server{client.service,
                   {.tasks = tasks,
                    .statistics = statistics,
                    .reload_tasks = [this] { return ++reloads > 0; },
                    .reload_keychain = [this] { return ++reloads > 0; }}};
};

TEST_F(ChangedRequestTest, EveryTruncationIsAnswered) {
  for (const char* text : {R"({"tasks":[{"sla-id":1,"metrics":["rtt-values"]}]})",
                           R"({"metrics":["rtt-values","loss-values"]})", R"({"tasks":[1]})"}) {
    for (const std::uint16_t command : std::vector<std::uint16_t>{0, 1, 2}) {
      test::ForEachTruncation(test::RequestBytes(command, text), [&](const RequestDatagram& part) {
        if (!part.empty()) Check(part);  // an empty datagram is none
      });
    }
  }
}

TEST_F(ChangedRequestTest, EveryChangeOfAStatusRequestIsAnswered) {
  test::ForEachChange(test::RequestBytes(2, R"({"tasks":[1]})"),
                      [&](const RequestDatagram& request, std::size_t) { Check(request); });
  EXPECT_GT(good, 1000);
  EXPECT_EQ(reloads, 2) << "two other commands are a byte away";
}

TEST_F(ChangedRequestTest, ChangesOfAStatisticsRequestAreAnswered) {
  const auto whole = test::RequestBytes(0, R"({"tasks":[{"sla-id":1,"metrics":["rtt-values"]}]})");
  const std::string_view text(reinterpret_cast<const char*>(whole.data()), whole.size());
  test::ForEachTextChange(text,
                          [&](const RequestDatagram& request, std::size_t) { Check(request); });
  EXPECT_GT(good, 100);
}

}  // namespace
}  // namespace ipsla
