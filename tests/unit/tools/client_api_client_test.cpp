#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/api_client.h"
#include "client/sender_client.h"
#include "tools/client_fake_daemon.h"

namespace ipsla::client {
namespace {

using Kind = ClientError::Kind;
using std::chrono::milliseconds;
using test::FakeDaemon;

template <typename Call>
Kind KindOf(Call call) {
  try {
    call();
  } catch (const ClientError& error) {
    EXPECT_STRNE(error.what(), "");
    return error.GetKind();
  }
  ADD_FAILURE() << "no error";
  return Kind::kSystem;
}

TEST(ApiClient, SendsTheRequestAndReturnsTheText) {
  FakeDaemon daemon;
  daemon.Serve(1, [](FakeDaemon& self, const ApiHeader& request, const std::string& text) {
    EXPECT_EQ(request.command, 2);
    EXPECT_EQ(request.request_marker, 1);
    EXPECT_EQ(request.result, 0);
    EXPECT_EQ(text, R"({"tasks":[1]})");
    self.Send(BuildJsonReply(request, R"({"tasks":[]})").front());
  });
  EXPECT_EQ(ApiClient(daemon.Options()).Query(ApiCommand::kGetTaskStatus, R"({"tasks":[1]})"),
            R"({"tasks":[]})");
}

TEST(ApiClient, JoinsReorderedAndRepeatedFragmentsAndIgnoresStrangers) {
  const std::string text(20000, 'x');
  FakeDaemon daemon;
  daemon.Serve(1, [&text](FakeDaemon& self, const ApiHeader& request, const std::string&) {
    ApiHeader stranger = request;
    stranger.prefix[0] ^= 0xFFU;
    const auto datagrams = BuildJsonReply(request, text);
    self.Send(BuildJsonReply(stranger, "{}").front());
    for (const std::size_t index : {2U, 0U, 0U, 2U, 1U}) {
      self.Send(datagrams[index]);
    }
  });
  EXPECT_TRUE(ApiClient(daemon.Options()).Query(ApiCommand::kGetTaskStatistics, "{}") == text);
}

TEST(ApiClient, AsksAgainWhenAFragmentWasLost) {
  const std::string text(9000, 'x');
  int requests = 0;
  FakeDaemon daemon;
  daemon.Serve(2, [&](FakeDaemon& self, const ApiHeader& request, const std::string&) {
    const auto datagrams = BuildJsonReply(request, text);
    self.Send(datagrams[1]);
    if (++requests == 2) {
      self.Send(datagrams[0]);
    }
  });
  EXPECT_TRUE(
      ApiClient(daemon.Options(milliseconds(300))).Query(ApiCommand::kGetTaskStatistics, "{}") ==
      text);
  EXPECT_EQ(requests, 2);
}

TEST(ApiClient, NamesTheFragmentThatStayedLost) {
  FakeDaemon daemon;
  daemon.Serve(2, [](FakeDaemon& self, const ApiHeader& request, const std::string&) {
    self.Send(BuildJsonReply(request, std::string(9000, 'x'))[1]);
  });
  const ApiClient client(daemon.Options(milliseconds(100)));
  try {
    (void)client.Query(ApiCommand::kGetTaskStatistics, "{}");
    FAIL();
  } catch (const ClientError& error) {
    EXPECT_EQ(error.GetKind(), Kind::kTimeout);
    EXPECT_STREQ(error.what(), "the reply stayed incomplete: 1 fragments came, number 1 did not");
  }
}

TEST(ApiClient, DoesNotRepeatARequestThatIsNotAnswered) {
  const FakeDaemon daemon;
  const ApiClient client(daemon.Options(milliseconds(50)));
  EXPECT_EQ(KindOf([&] { (void)client.Query(ApiCommand::kGetTaskStatus, "{}"); }), Kind::kTimeout);
}

TEST(ApiClient, TellsThatNothingListens) {
  FakeDaemon daemon;
  const ApiClient client(daemon.Options());
  EXPECT_TRUE(client.DaemonListens());
  daemon.Close();
  EXPECT_FALSE(client.DaemonListens());
  EXPECT_EQ(KindOf([&] { (void)client.Query(ApiCommand::kGetTaskStatus, "{}"); }), Kind::kNoDaemon);
  EXPECT_EQ(KindOf([&] { client.Execute(ApiCommand::kParseTasksConfig, milliseconds(20000)); }),
            Kind::kNoDaemon);
}

TEST(ApiClient, TellsARefusal) {
  FakeDaemon daemon;
  daemon.Serve(1, [](FakeDaemon& self, const ApiHeader& request, const std::string&) {
    self.Send(BuildHeaderReply(request, kApiFailure));
  });
  EXPECT_EQ(
      KindOf([&] {
        ApiClient(daemon.Options()).Execute(ApiCommand::kParseTasksConfig, milliseconds(20000));
      }),
      Kind::kRefused);
}

TEST(ApiClient, TellsAReplyThatMakesNoSense) {
  FakeDaemon daemon;
  daemon.Serve(1, [](FakeDaemon& self, const ApiHeader& request, const std::string&) {
    ApiBytes datagram = BuildHeaderReply(request, kApiSuccess);
    datagram.push_back(0);
    self.Send(datagram);
  });
  EXPECT_EQ(
      KindOf([&] { (void)ApiClient(daemon.Options()).Query(ApiCommand::kGetTaskStatus, "{}"); }),
      Kind::kMalformed);
}

TEST(ApiClient, ReturnsWhenAHeaderAloneSaysDone) {
  FakeDaemon daemon;
  daemon.Serve(1, [](FakeDaemon& self, const ApiHeader& request, const std::string& text) {
    EXPECT_EQ(request.command, 4);
    EXPECT_EQ(text, "");
    self.Send(BuildHeaderReply(request, kApiSuccess));
  });
  EXPECT_NO_THROW(
      ApiClient(daemon.Options()).Execute(ApiCommand::kParseKeychainConfig, milliseconds(20000)));
}

TEST(ApiClient, NoticesThatTheDaemonEndedWithoutAnAnswer) {
  FakeDaemon daemon;
  daemon.Serve(1, [](FakeDaemon& self, const ApiHeader&, const std::string&) { self.Close(); });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(
      KindOf([&] {
        ApiClient(daemon.Options()).Execute(ApiCommand::kParseKeychainConfig, milliseconds(60000));
      }),
      Kind::kEnded);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30))
      << "it waited for the timeout";
}

TEST(ApiClient, EndsWaitingWhenInterrupted) {
  const FakeDaemon daemon;
  ClientOptions options = daemon.Options(milliseconds(60000));
  options.interrupt_fd = eventfd(1, EFD_CLOEXEC);
  EXPECT_EQ(KindOf([&] { (void)ApiClient(options).Query(ApiCommand::kGetTaskStatus, "{}"); }),
            Kind::kInterrupted);
  close(options.interrupt_fd);
}

TEST(ApiClient, RefusesARequestThatTheDaemonCannotReadWhole) {
  const FakeDaemon daemon;
  const std::string text(8164, 'x');
  EXPECT_EQ(
      KindOf([&] { (void)ApiClient(daemon.Options()).Query(ApiCommand::kGetTaskStatus, text); }),
      Kind::kSystem);
}

TEST(SenderClient, JoinsTheRepliesToSeveralRequests) {
  int requests = 0;
  FakeDaemon daemon;
  std::set<std::int32_t> ids;
  for (std::int32_t id = 0; id < 3000; ++id) {
    ids.insert(id);
  }
  daemon.Serve(2, [&requests](FakeDaemon& self, const ApiHeader& request, const std::string&) {
    self.Send(BuildJsonReply(request, R"({"tasks":[{"sla-id":)" + std::to_string(++requests) +
                                          R"(,"status":true}]})")
                  .front());
  });
  EXPECT_EQ(SenderClient(daemon.Options()).Statuses(ids), (StatusMap{{1, true}, {2, true}}));
}

TEST(SenderClient, TellsAReplyThatIsNoSuchDocument) {
  FakeDaemon daemon;
  daemon.Serve(1, [](FakeDaemon& self, const ApiHeader& request, const std::string&) {
    self.Send(BuildJsonReply(request, "[]").front());
  });
  EXPECT_EQ(KindOf([&] { (void)SenderClient(daemon.Options()).ActiveStatistics({}); }),
            Kind::kMalformed);
}

}  // namespace
}  // namespace ipsla::client
