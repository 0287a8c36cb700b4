#include <arpa/inet.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "client/api_client.h"
#include "client/sender_client.h"

namespace ipsla::client {
namespace {

using Kind = ClientError::Kind;
using std::chrono::milliseconds;

/// A daemon's socket on a port of its own, answered by the test.
class FakeDaemon {
 public:
  using Handler = std::function<void(FakeDaemon&, const ApiHeader&, const std::string&)>;

  FakeDaemon() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const timeval patience{.tv_sec = 60,
                           .tv_usec = 0};  // a client that does not ask fails the test, not the run
    EXPECT_EQ(setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)), 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    socklen_t length = sizeof(address);
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    port_ = ntohs(address.sin_port);
  }
  ~FakeDaemon() {
    if (thread_.joinable()) {
      thread_.join();
    }
    Close();
  }
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] ClientOptions Options(milliseconds timeout = milliseconds(20000)) const {
    return {.address = "127.0.0.1", .port = port_, .timeout = timeout};
  }

  /// Handles so many requests on a thread of its own; the destructor waits for them.
  void Serve(int requests, Handler handler) {
    thread_ = std::thread([this, requests, handler = std::move(handler)] {
      for (int request = 0; request < requests; ++request) {
        ApiBytes buffer(kApiMaxDatagram);
        socklen_t length = sizeof(peer_);
        const ssize_t size = recvfrom(fd_, buffer.data(), buffer.size(), 0,
                                      reinterpret_cast<sockaddr*>(&peer_), &length);
        ASSERT_GT(size, 0);
        buffer.resize(static_cast<std::size_t>(size));
        handler(*this, DecodeApiHeader(buffer), std::string(ApiPayloadText(buffer)));
      }
    });
  }

  void Send(const ApiBytes& datagram) {
    EXPECT_EQ(sendto(fd_, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&peer_), sizeof(peer_)),
              static_cast<ssize_t>(datagram.size()));
  }

  void Close() {
    if (fd_ >= 0) {
      close(std::exchange(fd_, -1));
    }
  }

 private:
  int fd_;
  std::uint16_t port_ = 0;
  sockaddr_in peer_{};
  std::thread thread_;
};

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
