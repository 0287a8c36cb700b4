// Requests over the real socket, in raw bytes.

#include "api/api_server.h"

#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "env/descriptor.h"
#include "env/time_values.h"
#include "support/api_client.h"
#include "support/recording_syslog.h"

namespace ipsla {
namespace {

using test::ApiClient;
using test::RequestBytes;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

using Datagram = std::vector<std::uint8_t>;

class ApiServerTest : public testing::Test {
 protected:
  ApiServerTest() {
    for (const std::uint16_t id : std::vector<std::uint16_t>{1, 10}) {
      tasks[id].sla_id = id;
      tasks[id].schedule = true;
    }
    statistics.tasks[1].successful_count = 4;
    server.Open();
    test::TakeSyslog();
  }

  // The header-only reply to what RequestBytes builds.
  static Datagram HeaderReply(std::uint16_t command, std::uint16_t result) {
    Datagram bytes = {'p', 'r', 'e', 'f', 'i', 'x', '-', '8', 1, 0xFE, 0xAB, 0xCD, 1, 2,
                      3,   4,   0,   0,   0,   28,  0,   0,   0, 0,    0,    0,    0, 8};
    std::memcpy(&bytes[20], &command, sizeof command);
    std::memcpy(&bytes[22], &result, sizeof result);
    return bytes;
  }

  // The text of a reply that fits one datagram.
  std::string JsonReply(std::uint16_t command, const std::string& json) {
    const Datagram reply = client.Exchange(RequestBytes(command, json));
    EXPECT_GE(reply.size(), kApiHeaderSize);
    EXPECT_EQ(DecodeApiHeader(reply).result, kApiSuccess);
    return std::string(ApiPayloadText(reply));
  }

  ApiClient client;
  SlaTaskMap tasks;
  StatisticsStore statistics;
  int task_reloads = 0;
  int keychain_reloads = 0;
  bool reload_succeeds = true;
  ApiServer server{client.service,
                   {.tasks = tasks,
                    .statistics = statistics,
                    .reload_tasks = [this] { return ++task_reloads, reload_succeeds; },
                    .reload_keychain = [this] { return ++keychain_reloads, reload_succeeds; }}};
};

TEST_F(ApiServerTest, RequestMarkerZeroFails) {
  Datagram request = RequestBytes(2, R"({"tasks": []})");
  request[8] = 0;
  Datagram expected = HeaderReply(2, 4);
  expected[8] = 0;
  EXPECT_EQ(client.Exchange(request), expected);
  EXPECT_THAT(test::TakeSyslogTexts(), Not(Contains(HasSubstr("Recive"))));
}

TEST_F(ApiServerTest, ResultSevenFails) {
  Datagram request = RequestBytes(2, R"({"tasks": []})");
  const std::uint16_t seven = 7;
  std::memcpy(&request[22], &seven, sizeof seven);
  EXPECT_EQ(client.Exchange(request), HeaderReply(2, 4));
}

TEST_F(ApiServerTest, DatagramsShorterThanTheHeaderAreReadAsZeros) {
  const Datagram whole = RequestBytes(0, "");
  for (std::size_t size = 1; size < kApiHeaderSize; ++size) {
    const Datagram reply =
        client.Exchange({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
    ASSERT_EQ(reply.size(), kApiHeaderSize) << size;
    EXPECT_EQ(DecodeApiHeader(reply).result, kApiFailure) << size;
    EXPECT_TRUE(std::equal(
        reply.begin(), reply.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(size, 8)),
        whole.begin()))
        << "what there was of the prefix comes back";
  }
}

TEST_F(ApiServerTest, EmptyDatagramIsNotAnswered) {
  client.Send({});
  EXPECT_EQ(client.Exchange(RequestBytes(7, "")), HeaderReply(7, 0))
      << "the first reply is the second request's";
}

TEST_F(ApiServerTest, UnknownCommandIsAnsweredAsDone) {
  EXPECT_EQ(client.Exchange(RequestBytes(7, "")), HeaderReply(7, 0));
  EXPECT_THAT(test::TakeSyslogTexts(), ElementsAre("Recive commad unknown command"));
}

struct FailingRequest {
  const char* name;
  std::uint16_t command;
  const char* json;
  const char* line;
};

class FailingRequestTest : public ApiServerTest,
                           public testing::WithParamInterface<FailingRequest> {};

TEST_P(FailingRequestTest, GetsResultFourAndItsLine) {
  EXPECT_EQ(client.Exchange(RequestBytes(GetParam().command, GetParam().json)),
            HeaderReply(GetParam().command, 4));
  EXPECT_THAT(test::TakeSyslogTexts(), Contains(GetParam().line));
}

const FailingRequest kFailingRequests[] = {
    {"TasksToReportAreNoArray", 0, R"({"tasks": 5})",
     "cJSON_IsArray() failed: invalid sla task object"},
    {"TasksToReportAreMissing", 0, "{}", "cJSON_IsArray() failed: invalid sla task object"},
    {"MetricsOfATaskAreMissing", 0, R"({"tasks": [{"sla-id": 1}]})",
     "cJSON_IsArray() failed: invalid requested metrics"},
    {"MetricsOfATaskAreNoArray", 0, R"({"tasks": [{"sla-id": 1, "metrics": "rtt-values"}]})",
     "cJSON_IsArray() failed: invalid requested metrics"},
    {"MetricsOfAllAreMissing", 1, "{}", "cJSON_IsArray() failed: invalid requested metrics"},
    {"StatusTasksAreMissing", 2, "{}", "cJSON_IsArray() failed: invalid requested tasks"},
    {"StatusTasksAreNoArray", 2, R"({"tasks": {"1": 1}})",
     "cJSON_IsArray() failed: invalid requested tasks"},
    {"BodyIsNoObject", 2, "[1]", "cJSON_IsArray() failed: invalid requested tasks"},
    {"BodyIsNoJson", 1, "{broken}", "JSON parse error at line: roken}"},
    {"BodyIsMissing", 0, "", "JSON parse error at line: "},
};

INSTANTIATE_TEST_SUITE_P(Table, FailingRequestTest, testing::ValuesIn(kFailingRequests),
                         [](const auto& row) { return row.param.name; });

TEST_F(ApiServerTest, JsonEndsWithWhatWasReceived) {
  // A long request first: its rest must not complete the short one.
  EXPECT_EQ(JsonReply(2, R"({"tasks": [1                                   ]})"),
            R"({"tasks":[{"sla-id":1,"status":true}]})");
  Datagram unterminated = RequestBytes(2, R"({"tasks": [1)");
  unterminated.pop_back();
  EXPECT_EQ(client.Exchange(unterminated), HeaderReply(2, 4));
  Datagram complete = RequestBytes(2, R"({"tasks": [1]})");
  complete.pop_back();
  EXPECT_EQ(client.Exchange(complete).size(), kApiHeaderSize + 39);
}

TEST_F(ApiServerTest, DeepNestingIsRefused) {
  const std::string deep(4000, '[');
  EXPECT_EQ(client.Exchange(RequestBytes(0, deep)), HeaderReply(0, 4));
  const std::string closed =
      R"({"tasks": [)" + std::string(1000, '[') + std::string(1000, ']') + "]}";
  EXPECT_EQ(client.Exchange(RequestBytes(2, closed)), HeaderReply(2, 4));
}

TEST_F(ApiServerTest, StatusOfKnownTasksOnly) {
  const Datagram reply = client.Exchange(RequestBytes(2, R"({"tasks": [1, 999]})"));
  Datagram expected = HeaderReply(2, 0);
  const std::string text = R"({"tasks":[{"sla-id":1,"status":true}]})";
  expected[12] = 0;  // fragment 1 ...
  expected[13] = 0;
  expected[14] = 0;
  expected[15] = 1;
  expected[19] = static_cast<std::uint8_t>(28 + text.size() + 1);
  expected[27] = static_cast<std::uint8_t>(8 + text.size() + 1);
  expected.insert(expected.end(), text.begin(), text.end());
  expected.push_back(0);
  EXPECT_EQ(reply, expected) << "with the more bit cleared and the other flags echoed";
  const auto texts = test::TakeSyslogTexts();
  EXPECT_THAT(texts, Contains("Recive commad SENDER_API_CSLD_GET_TASK_STATUS"));
  EXPECT_THAT(texts, Contains("SenderAPI request JSON:\n{\n\t\"tasks\":\t[1, 999]\n}"));
  EXPECT_THAT(texts, Contains(HasSubstr("SenderAPI response JSON:\n{\n\t\"tasks\":\t[{")));
}

TEST_F(ApiServerTest, NoTasksAskedForNoneReported) {
  EXPECT_EQ(JsonReply(0, R"({"tasks": []})"), R"({"tasks":[]})");
}

TEST_F(ApiServerTest, GroupsComeSortedOnceAndUnknownNamesAreDropped) {
  const std::string reply = JsonReply(
      0,
      R"({"tasks": [{"sla-id": 1, "metrics": ["loss-values", "rtt-values", "loss-values", "weather", 5]}]})");
  const std::size_t loss = reply.find(R"("loss-values":{)");
  const std::size_t rtt = reply.find(R"("rtt-values":{)");
  ASSERT_NE(loss, std::string::npos);
  ASSERT_NE(rtt, std::string::npos);
  EXPECT_LT(loss, rtt);
  EXPECT_EQ(reply.find(R"("loss-values")", loss + 1), std::string::npos);
  EXPECT_EQ(reply.find("weather"), std::string::npos);
  EXPECT_EQ(reply.find("jitter-values"), std::string::npos);
}

TEST_F(ApiServerTest, ElementsAreReadLeniently) {
  // An element without an id is skipped, even with bad metrics; an id asked for twice keeps its
  // first groups.
  const std::string reply = JsonReply(
      0,
      R"({"tasks": [{"metrics": 5}, 7, {"sla-id": 1, "metrics": ["rtt-values"]}, {"sla-id": 1, "metrics": []},)"
      R"( {"sla-id": -5, "metrics": []}, {"sla-id": "text", "metrics": []}]})");
  EXPECT_THAT(reply, HasSubstr(R"("sla-id":1,)"));
  EXPECT_THAT(reply, HasSubstr("rtt-values"));
  EXPECT_EQ(reply.find("sla-id"), reply.rfind("sla-id"));
}

TEST_F(ApiServerTest, AllActiveTasksWithStatisticsAreReported) {
  const std::string reply = JsonReply(1, R"({"metrics": []})");
  EXPECT_THAT(reply, HasSubstr(R"("sla-id":1,)"));
  EXPECT_THAT(reply, HasSubstr(R"("successful-count":4)"));
  EXPECT_EQ(reply.find("sla-id"), reply.rfind("sla-id")) << "task 10 has no statistics yet";
}

// Asks for task 1 `ones` times and for task 10 `tens` times: 27 bytes each, and one more for
// task 10.
std::string StatusRequest(int ones, int tens) {
  std::string list;
  for (int i = 0; i < ones + tens; ++i) list += i < ones ? "1," : "10,";
  list.back() = ']';
  return R"({"tasks":[)" + list + "}";
}

struct Fragments {
  std::vector<std::size_t> sizes;
  std::vector<bool> more;
  std::string text;
};

Fragments ReceiveFragments(ApiClient* client, std::size_t count) {
  Fragments fragments;
  for (std::uint32_t number = 1; number <= count; ++number) {
    const Datagram datagram = client->ReceiveReply();
    const ApiHeader header = DecodeApiHeader(datagram);
    EXPECT_EQ(header.fragment_number, number);
    EXPECT_EQ(header.datagram_length, datagram.size());
    EXPECT_EQ(header.block_length, datagram.size() - 20);
    fragments.sizes.push_back(datagram.size() - kApiHeaderSize);
    fragments.more.push_back((header.flags & kApiMoreFragments) != 0);
    fragments.text.append(datagram.begin() + kApiHeaderSize, datagram.end());
  }
  return fragments;
}

TEST_F(ApiServerTest, ReplyOfTwentyThousandCharactersGoesOutInThreeFragments) {
  client.Send(RequestBytes(2, StatusRequest(731, 9)));
  const Fragments fragments = ReceiveFragments(&client, 3);
  EXPECT_THAT(fragments.sizes, ElementsAre(8164U, 8164U, 3673U));
  EXPECT_THAT(fragments.more, ElementsAre(true, true, false));
  EXPECT_EQ(fragments.text.size(), 20001U);
  EXPECT_EQ(fragments.text.find('\0'), 20000U);
  EXPECT_THAT(fragments.text, testing::StartsWith(R"({"tasks":[{"sla-id":1,)"));
  EXPECT_FALSE(client.TakeReply());
}

TEST_F(ApiServerTest, LastFragmentOfFullSizeStillSaysMore) {
  client.Send(RequestBytes(2, StatusRequest(276, 25)));
  const Fragments fragments = ReceiveFragments(&client, 1);
  EXPECT_THAT(fragments.sizes, ElementsAre(8164U));
  EXPECT_THAT(fragments.more, ElementsAre(true));
  EXPECT_EQ(client.Exchange(RequestBytes(7, "")), HeaderReply(7, 0)) << "no empty fragment follows";
}

TEST_F(ApiServerTest, ReloadCommandsReloadWhatTheyName) {
  EXPECT_EQ(client.Exchange(RequestBytes(3, "ignored")), HeaderReply(3, 0));
  EXPECT_EQ(task_reloads, 1);
  EXPECT_EQ(keychain_reloads, 0);
  EXPECT_EQ(client.Exchange(RequestBytes(4, "")), HeaderReply(4, 0));
  EXPECT_EQ(task_reloads, 1);
  EXPECT_EQ(keychain_reloads, 1);
  EXPECT_THAT(test::TakeSyslogTexts(),
              ElementsAre("Recive commad SENDER_API_CSLD_PARSE_TASKS_CONFIG",
                          "Recive commad SENDER_API_CSLD_PARSE_KEYCHAIN_CONFIG"));
}

TEST_F(ApiServerTest, FailedReloadIsAnsweredSo) {
  reload_succeeds = false;
  EXPECT_EQ(client.Exchange(RequestBytes(3, "")), HeaderReply(3, 4));
  EXPECT_EQ(client.Exchange(RequestBytes(4, "")), HeaderReply(4, 4));
}

TEST_F(ApiServerTest, HandlerQueuedWhenTheServerEndsTouchesNothing) {
  {
    server.Close();
    ApiServer passing(client.service, {.tasks = tasks,
                                       .statistics = statistics,
                                       .reload_tasks = nullptr,
                                       .reload_keychain = nullptr});
    passing.Open();
    client.service.poll();  // arms the receive in the reactor
    client.Send(RequestBytes(7, ""));
    passing.Close();
  }
  client.service.restart();
  client.service.run();
  EXPECT_FALSE(client.TakeReply());
}

TEST_F(ApiServerTest, TakenPortIsAnErrorThatNamesTheStep) {
  ApiServer second(client.service, {.tasks = tasks,
                                    .statistics = statistics,
                                    .reload_tasks = nullptr,
                                    .reload_keychain = nullptr});
  try {
    second.Open();
    ADD_FAILURE() << "no exception";
  } catch (const boost::system::system_error& error) {
    EXPECT_STREQ(error.what(), "bind: Address already in use");
  }
  EXPECT_EQ(client.Exchange(RequestBytes(7, "")), HeaderReply(7, 0));
}

// Sends a request to the server from any port of the loopback address.
void SendFromPort(std::uint16_t port, const Datagram& request) {
  const Descriptor raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP));
  Datagram packet(sizeof(udphdr));
  udphdr header{};
  header.source = htons(port);
  header.dest = htons(kApiPort);
  header.len = htons(static_cast<std::uint16_t>(sizeof header + request.size()));
  std::memcpy(packet.data(), &header, sizeof header);
  packet.insert(packet.end(), request.begin(), request.end());
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(sendto(raw.Get(), packet.data(), packet.size(), 0,
                   reinterpret_cast<const sockaddr*>(&to), sizeof to),
            static_cast<ssize_t>(packet.size()));
}

TEST_F(ApiServerTest, DatagramInItsOwnNameIsIgnored) {
  // Its answer would be the next request, for ever.
  SendFromPort(kApiPort, RequestBytes(7, ""));
  EXPECT_EQ(client.Exchange(RequestBytes(8, "")), HeaderReply(8, 0));
  EXPECT_THAT(test::TakeSyslogTexts(), ElementsAre("Recive commad unknown command"));
}

TEST_F(ApiServerTest, RequesterThatCannotBeAnsweredEndsOnlyItsRequest) {
  SendFromPort(0, RequestBytes(7, ""));
  EXPECT_EQ(client.Exchange(RequestBytes(8, "")), HeaderReply(8, 0));
  EXPECT_THAT(test::TakeSyslogTexts(), Contains(HasSubstr("send_to: Invalid argument")));
}

TEST_F(ApiServerTest, BurstOfAThousandRequestsOfFullSizeIsAnswered) {
  Datagram request = RequestBytes(7, "");
  request.resize(kApiMaxDatagram, 'x');
  constexpr int kRequests = 1000;
  for (int i = 0; i < kRequests; ++i) client.Send(request);
  int replies = 0;
  while (replies < kRequests && client.ReceiveReply().size() == kApiHeaderSize) ++replies;
  EXPECT_EQ(replies, kRequests);
}

// The kernel stamps what arrives; the server looks at the clock some seconds later.
timespec SixSecondsLater() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  now.tv_sec += 6;
  return now;
}

constexpr Clocks kLater{.real_time = SixSecondsLater, .steady = std::chrono::steady_clock::now};

class OldRequestsTest : public ApiServerTest {
 protected:
  // Sends so many requests, which are six seconds old when the server sees them. Tells how many it
  // answers.
  int Answered(int requests) {
    for (int count = 0; count < requests; ++count) client.Send(RequestBytes(7, ""));
    UseClocks(&kLater);
    client.service.run_for(std::chrono::seconds(1));
    UseClocks(nullptr);
    int replies = 0;
    while (client.TakeReply()) ++replies;
    return replies;
  }
};

TEST_F(OldRequestsTest, BurstIsAnsweredHoweverLongItWaited) {
  EXPECT_EQ(Answered(1000), 1000);
}

TEST_F(OldRequestsTest, WhatAFloodLeftIsDroppedAndTheNextRequestAnswered) {
  EXPECT_EQ(Answered(4000), 0);
  EXPECT_EQ(client.Exchange(RequestBytes(8, "")), HeaderReply(8, 0));
}

TEST_F(ApiServerTest, RequestsAreTakenAtABoundedRate) {
  for (int count = 0; count < 2 * RequestRate::kPerSecond; ++count) {
    client.Send(RequestBytes(7, ""));
  }
  const auto start = std::chrono::steady_clock::now();
  client.service.run_for(std::chrono::milliseconds(200));
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  int replies = 0;
  while (client.TakeReply()) ++replies;
  EXPECT_LE(replies, RequestRate::kAtOnce + 1 + RequestRate::kPerSecond * elapsed.count());
  EXPECT_GT(replies, RequestRate::kAtOnce);
}

TEST_F(ApiServerTest, HostileDatagramsLeaveItAnswering) {
  std::mt19937 random(7);  // NOLINT(cert-msc51-cpp): repeatable on purpose
  const std::string texts[] = {R"({"tasks": [{"sla-id": 1, "metrics": ["rtt-values"]}]})",
                               R"({"metrics": []})", R"({"tasks": [1, 10, 99999999999999]})",
                               "\xff\xfe{\"tasks\": [\"\xc0\x80\"]}"};
  constexpr int kRounds = 300;
  for (int round = 0; round < kRounds; ++round) {
    Datagram request =
        RequestBytes(static_cast<std::uint16_t>(random() % 3), texts[random() % std::size(texts)]);
    for (auto change = random() % 6; change > 0; --change) {
      request[random() % request.size()] = static_cast<std::uint8_t>(random());
    }
    std::uint16_t command = 0;
    std::memcpy(&command, &request[20], sizeof command);
    if (command == 3 || command == 4) continue;  // reloads are no damage
    if (random() % 4 == 0) request.resize(1 + random() % 9000);
    EXPECT_GE(client.Exchange(request).size(), kApiHeaderSize) << round;
  }
  EXPECT_EQ(client.Exchange(RequestBytes(7, "")), HeaderReply(7, 0));
}

}  // namespace
}  // namespace ipsla
