#include <future>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exporter/page_files.h"
#include "exporter/routes.h"

namespace ipsla::exporter {
namespace {

using ::testing::HasSubstr;

/// A port on which no daemon listens.
constexpr std::uint16_t kNoDaemon = 1;

class ExporterRoutes : public ::testing::Test {
 protected:
  WebReply Get(const WebRequest& request) {
    std::promise<WebReply> promise;
    routes_.Answer(request, [&promise](WebReply reply) { promise.set_value(std::move(reply)); });
    return promise.get_future().get();
  }

  Collector collector_{{.api_port = kNoDaemon, .tasks_file = ""}};
  const Routes routes_{&collector_};
};

TEST_F(ExporterRoutes, AnswerMetricsInTheFormatAskedFor) {
  WebReply reply = Get({.target = "/metrics", .accept = "text/plain", .if_none_match = ""});
  EXPECT_EQ(reply.status, 200U);
  EXPECT_EQ(reply.type, "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_THAT(std::string(reply.body), HasSubstr("\nipsla_up 0\n"));
  reply = Get({.target = "/metrics?x",
               .accept = "application/openmetrics-text;version=1.0.0,text/plain;q=0.5",
               .if_none_match = ""});
  EXPECT_EQ(reply.type, "application/openmetrics-text; version=1.0.0; charset=utf-8");
  EXPECT_TRUE(reply.body.ends_with("# EOF\n"));
}

TEST_F(ExporterRoutes, SayWithoutADaemonThatThereAreNoTasks) {
  const WebReply reply = Get({.target = "/api/tasks", .accept = "", .if_none_match = ""});
  EXPECT_EQ(reply.status, 503U);
  EXPECT_EQ(reply.type, "application/json; charset=utf-8");
}

TEST_F(ExporterRoutes, AnswerAHistoryAndRefuseOneWithoutATask) {
  const auto status = [this](const char* target) {
    return Get({.target = target, .accept = "", .if_none_match = ""}).status;
  };
  EXPECT_EQ(status("/api/history?task=1"), 200U);
  EXPECT_EQ(status("/api/history?since=5&task=65535"), 200U);
  for (const char* wrong : {"/api/history", "/api/history?task=", "/api/history?task=-1",
                            "/api/history?task=65536", "/api/history?task=1x"}) {
    EXPECT_EQ(status(wrong), 400U) << wrong;
  }
}

TEST_F(ExporterRoutes, ServeThePageAndWhatItNeeds) {
  ASSERT_FALSE(PageFiles().empty());
  for (const PageFile& file : PageFiles()) {
    const WebReply reply =
        Get({.target = std::string(file.path), .accept = "", .if_none_match = ""});
    EXPECT_EQ(reply.status, 200U);
    EXPECT_FALSE(reply.body.empty()) << file.path;
    EXPECT_EQ(reply.type, file.type);
    const WebReply again = Get(
        {.target = std::string(file.path), .accept = "", .if_none_match = std::string(reply.etag)});
    EXPECT_EQ(again.status, 304U);
    EXPECT_TRUE(again.body.empty());
  }
  EXPECT_EQ(PageFiles().front().path, "/");
  EXPECT_EQ(Get({.target = "/-/healthy", .accept = "", .if_none_match = ""}).status, 200U);
}

TEST_F(ExporterRoutes, DoNotKnowAnythingElse) {
  for (const char* target : {"", "*", "/nothing", "//", "/../etc/passwd", "/metrics/", "/?x=/.."}) {
    const unsigned expected = std::string(target) == "/?x=/.." ? 200U : 404U;
    EXPECT_EQ(Get({.target = target, .accept = "", .if_none_match = ""}).status, expected)
        << target;
  }
}

TEST(ExporterFormat, IsOpenMetricsOnlyWhereItIsNamed) {
  for (const char* accept : {"application/openmetrics-text",
                             "text/html, application/openmetrics-text;version=1.0.0;q=0.8",
                             "application/openmetrics-text ; q=1,*/*"}) {
    EXPECT_EQ(FormatFor(accept), MetricFormat::kOpenMetrics) << accept;
  }
  for (const char* accept : {"", "*/*", "text/plain", "application/openmetrics-text;q=0",
                             "application/openmetrics-text; q=0.000", "application/openmetrics"}) {
    EXPECT_EQ(FormatFor(accept), MetricFormat::kPrometheus) << accept;
  }
  EXPECT_EQ(FormatFor("application/openmetrics-text;q=0.001"), MetricFormat::kOpenMetrics);
}

TEST(ExporterQuery, NumberIsFoundByItsName) {
  EXPECT_EQ(QueryNumber("/x?task=12&since=3", "since"), 3);
  EXPECT_EQ(QueryNumber("/x?task=12", "task"), 12);
  EXPECT_EQ(QueryNumber("/x?task=12", "tas"), std::nullopt);
  EXPECT_EQ(QueryNumber("/x", "task"), std::nullopt);
  EXPECT_EQ(QueryNumber("/x?task=9007199254740993", "task"), std::nullopt);
  EXPECT_EQ(QueryNumber("/x?task=99999999999999999999", "task"), std::nullopt);
}

}  // namespace
}  // namespace ipsla::exporter
