#include <numeric>

#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/sender_api_message.h"
#include "client/request_texts.h"
#include "client/sender_client.h"
#include "config/json_text.h"

namespace ipsla::client {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(RequestTexts, WritesTheBodiesThatTheDaemonReads) {
  EXPECT_THAT(StatusRequests({7, 3, 12}), ElementsAre(R"({"tasks":[3,7,12]})"));
  EXPECT_THAT(StatisticsRequests({3}, {"rtt-values", "loss-values"}),
              ElementsAre(R"({"tasks":[{"sla-id":3,"metrics":["loss-values","rtt-values"]}]})"));
  EXPECT_THAT(StatisticsRequests({3, 4}, {}),
              ElementsAre(R"({"tasks":[{"sla-id":3,"metrics":[]},{"sla-id":4,"metrics":[]}]})"));
  EXPECT_EQ(ActiveStatisticsRequest({}), R"({"metrics":[]})");
  EXPECT_EQ(ActiveStatisticsRequest({"rtt-values"}), R"({"metrics":["rtt-values"]})");
}

TEST(RequestTexts, WritesNothingForNoTasks) {
  EXPECT_THAT(StatusRequests({}), IsEmpty());
  EXPECT_THAT(StatisticsRequests({}, MetricGroupNames()), IsEmpty());
}

/// Every id in the requests, in order; checks that each request fits a datagram.
std::vector<int> IdsIn(const std::vector<std::string>& requests) {
  std::vector<int> ids;
  for (const std::string& request : requests) {
    EXPECT_LE(BuildApiRequest(ApiCommand::kGetTaskStatus, request).size(), kApiMaxDatagram);
    const JsonDocument document(cJSON_Parse(request.c_str()));
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, cJSON_GetObjectItem(document.get(), "tasks")) {
      const cJSON* id =
          cJSON_IsObject(element) != 0 ? cJSON_GetObjectItem(element, "sla-id") : element;
      ids.push_back(id->valueint);
    }
  }
  return ids;
}

TEST(RequestTexts, CutsAllTaskIdsIntoRequestsThatFit) {
  std::vector<int> expected(65536);
  std::iota(expected.begin(), expected.end(), 0);
  const auto statuses = StatusRequests(AllTaskIds());
  EXPECT_EQ(IdsIn(statuses), expected);
  EXPECT_LT(statuses.size(), 60U);
  EXPECT_EQ(IdsIn(StatisticsRequests(AllTaskIds(), MetricGroupNames())), expected);
}

}  // namespace
}  // namespace ipsla::client
