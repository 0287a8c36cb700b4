// The responder's loop, over the loopback interface.

#include "responder/responder.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/bytes.h"
#include "tools/responder_probe.h"
#include "udp/digest.h"
#include "udp/probe_message.h"

namespace ipsla::responder {
namespace {

using test::Probe;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Status = SlaControlStatus;

constexpr std::uint32_t kLoopback = 0x7f000001;
constexpr int kDeadlineMs = 20000;

// A socket of a sender.
class Peer {
 public:
  Peer() {
    int error = 0;
    socket_ = OpenUdpSocket({.address = kLoopback, .port = 0}, &error);
    EXPECT_TRUE(socket_) << error;
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket_.Get(), reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }

  [[nodiscard]] std::uint16_t Port() const { return port_; }

  void Send(std::uint16_t port, std::span<const std::uint8_t> bytes,
            std::uint32_t address = kLoopback) const {
    const sockaddr_in to = ToSockaddr({.address = address, .port = port});
    const auto* name = reinterpret_cast<const sockaddr*>(&to);
    EXPECT_EQ(sendto(socket_.Get(), bytes.data(), bytes.size(), 0, name, sizeof to),
              static_cast<ssize_t>(bytes.size()));
  }

  // The next datagram; empty with a failure when none comes. `source` is where it came from.
  std::vector<std::uint8_t> Receive(Endpoint* source = nullptr) const {
    pollfd waiting = {.fd = socket_.Get(), .events = POLLIN, .revents = 0};
    if (poll(&waiting, 1, kDeadlineMs) != 1) {
      ADD_FAILURE() << "no datagram";
      return {};
    }
    std::vector<std::uint8_t> buffer(4096);
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const ssize_t received = recvfrom(socket_.Get(), buffer.data(), buffer.size(), 0,
                                      reinterpret_cast<sockaddr*>(&from), &length);
    buffer.resize(static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
    if (source != nullptr) *source = FromSockaddr(from);
    return buffer;
  }

 private:
  Descriptor socket_;
  std::uint16_t port_ = 0;
};

class ResponderTest : public testing::Test {
 protected:
  void Start(ResponderOptions options = {}) {
    options.control_port = 0;
    responder_ = std::make_unique<Responder>(std::move(options),
                                             [this](const std::string& line) { Print(line); });
    thread_ = std::thread([this] { responder_->Run([this] { return Load(); }); });
    EXPECT_TRUE(WaitForLine("listening on "));
  }

  void TearDown() override {
    if (thread_.joinable()) Stop();
  }

  void Stop() {
    responder_->Stop();
    thread_.join();
  }

  // A request to this responder, answered on `port` (0: its choice).
  static ControlPhaseMessage Request(SlaTestType type, const Peer& measurement,
                                     std::uint16_t port = 0) {
    ControlPhaseMessage request;
    request.auth_mode = SlaAuthMode::kNone;
    request.operation_type = static_cast<std::uint8_t>(type);
    for (in_addr* address :
         {&request.control_sender_address, &request.control_responder_address,
          &request.measurement_sender_address, &request.measurement_responder_address}) {
      address->s_addr = htonl(kLoopback);
    }
    request.measurement_sender_port = measurement.Port();
    request.measurement_responder_port = port;
    request.duration_ms = 600000;
    return request;
  }

  ControlPhaseMessage Ask(const ControlPhaseMessage& request) {
    control_.Send(responder_->ControlPort(), EncodeControlMessage(request));
    return DecodeControlMessage(control_.Receive());
  }

  std::vector<std::string> Lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

  bool WaitForLine(const std::string& start) {
    std::unique_lock lock(mutex_);
    return printed_.wait_for(lock, std::chrono::milliseconds(kDeadlineMs), [&] {
      return std::ranges::any_of(lines_,
                                 [&](const std::string& line) { return line.starts_with(start); });
    });
  }

  void SetNextPolicy(std::optional<AuthPolicy> policy) {
    const std::lock_guard lock(mutex_);
    next_policy_ = std::move(policy);
  }

  Peer control_;
  std::unique_ptr<Responder> responder_;

 private:
  void Print(const std::string& line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
    printed_.notify_all();
  }

  std::optional<AuthPolicy> Load() {
    Print("loaded");
    const std::lock_guard lock(mutex_);
    return next_policy_;
  }

  std::mutex mutex_;
  std::condition_variable printed_;
  std::vector<std::string> lines_;         // guarded by mutex_
  std::optional<AuthPolicy> next_policy_;  // guarded by mutex_
  std::thread thread_;
};

TEST_F(ResponderTest, AnswersProbesOfEveryTypeFromTheSocketTheyCameTo) {
  Start();
  for (const SlaTestType type :
       {SlaTestType::kUdpEcho, SlaTestType::kUdpJitter, SlaTestType::kUdpJitterNtp}) {
    const Peer measurement;
    const ControlPhaseMessage answer = Ask(Request(type, measurement));
    ASSERT_EQ(answer.status, Status::kSuccessful);
    EXPECT_NE(answer.session_id, 0U);
    ASSERT_NE(answer.measurement_responder_port, 0);
    for (std::uint32_t sequence = 1; sequence <= 3; ++sequence) {
      measurement.Send(answer.measurement_responder_port, Probe(type, sequence));
      Endpoint source;
      const std::vector<std::uint8_t> bytes = measurement.Receive(&source);
      EXPECT_EQ(source,
                (Endpoint{.address = kLoopback, .port = answer.measurement_responder_port}));
      EXPECT_EQ(bytes.size(), 64U);
      const ProbeReply reply = DecodeReply(bytes);
      EXPECT_EQ(reply.type, static_cast<std::uint16_t>(type));
      EXPECT_EQ(reply.sequence, sequence);
      EXPECT_EQ(reply.counter, sequence);
    }
  }
}

TEST_F(ResponderTest, SharesAPortAmongSendersAndKeepsTheirCountsApart) {
  Start();
  const Peer first;
  const Peer second;
  const auto one = Ask(Request(SlaTestType::kUdpJitter, first));
  const auto two = Ask(Request(SlaTestType::kUdpEcho, second, one.measurement_responder_port));
  ASSERT_EQ(two.status, Status::kSuccessful);
  EXPECT_EQ(one.measurement_responder_port, two.measurement_responder_port);
  EXPECT_NE(one.session_id, two.session_id);
  first.Send(one.measurement_responder_port, Probe(SlaTestType::kUdpJitter, 1));
  EXPECT_EQ(DecodeReply(first.Receive()).counter, 1U);
  second.Send(one.measurement_responder_port, Probe(SlaTestType::kUdpEcho, 1));
  EXPECT_EQ(DecodeReply(second.Receive()).counter, 1U);
  Stop();
  EXPECT_THAT(Lines(), Contains(HasSubstr("stopped: udp-jitter from ")).Times(1));
  EXPECT_THAT(Lines(), Contains(HasSubstr("stopped: udp-echo from ")).Times(1));
}

TEST_F(ResponderTest, IgnoresProbesOfNoSessionAndOfAnotherType) {
  Start();
  const Peer measurement;
  const Peer stranger;
  const auto answer = Ask(Request(SlaTestType::kUdpJitter, measurement));
  const std::uint16_t port = answer.measurement_responder_port;
  stranger.Send(port, Probe(SlaTestType::kUdpJitter, 1));
  measurement.Send(port, Probe(SlaTestType::kUdpEcho, 1));
  measurement.Send(port, Probe(SlaTestType::kUdpJitter, 1, 27));
  measurement.Send(port, Probe(SlaTestType::kUdpJitter, 7));
  EXPECT_EQ(DecodeReply(measurement.Receive()).sequence, 7U);
  Stop();
  EXPECT_THAT(Lines(),
              Contains(HasSubstr(
                  "received 1, distinct 1, duplicates 0, out of order 0, replies 1, errors 2")));
  EXPECT_THAT(Lines(), Contains("stopped, requests refused 0, requests ignored 0, stray probes 1"));
}

TEST_F(ResponderTest, EndsASessionAtItsDurationAndClosesItsPort) {
  Start();
  const Peer measurement;
  ControlPhaseMessage request = Request(SlaTestType::kUdpJitter, measurement);
  request.duration_ms = 1;
  const auto answer = Ask(request);
  ASSERT_EQ(answer.status, Status::kSuccessful);
  ASSERT_TRUE(WaitForLine("session 1 ended: udp-jitter from 127.0.0.1:"));
  int error = 0;
  const auto closed = [&] {
    return static_cast<bool>(
        OpenUdpSocket({.address = kLoopback, .port = answer.measurement_responder_port}, &error));
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
  while (!closed() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_TRUE(closed()) << error;
}

TEST_F(ResponderTest, ReplacesTheSessionOfASenderThatBeginsANewRun) {
  Start();
  const Peer measurement;
  const auto first = Ask(Request(SlaTestType::kUdpJitter, measurement));
  measurement.Send(first.measurement_responder_port, Probe(SlaTestType::kUdpJitter, 1));
  EXPECT_EQ(DecodeReply(measurement.Receive()).counter, 1U);
  ControlPhaseMessage next_run = Request(SlaTestType::kUdpJitter, measurement);
  next_run.control_sender_port = 12345;
  const auto second = Ask(next_run);
  EXPECT_EQ(second.measurement_responder_port, first.measurement_responder_port);
  EXPECT_TRUE(WaitForLine("session 1 replaced: "));
  measurement.Send(second.measurement_responder_port, Probe(SlaTestType::kUdpJitter, 1));
  EXPECT_EQ(DecodeReply(measurement.Receive()).counter, 1U);
}

TEST_F(ResponderTest, AnswersBusyForAPortInUseOrOutsideTheRange) {
  ResponderOptions options;
  options.lowest_port = 40000;
  options.highest_port = 40010;
  Start(options);
  const Peer measurement;
  int error = 0;
  const Descriptor taken = OpenUdpSocket({.address = kLoopback, .port = 40010}, &error);
  ASSERT_TRUE(taken);
  for (const std::uint16_t port : std::initializer_list<std::uint16_t>{40010, 39999, 40011}) {
    const auto answer = Ask(Request(SlaTestType::kUdpJitter, measurement, port));
    EXPECT_EQ(answer.status, Status::kFail) << port;
    EXPECT_EQ(answer.measurement_status, Status::kRequestedPortIsBusy) << port;
  }
  // Left to us, the highest free port is taken.
  EXPECT_EQ(Ask(Request(SlaTestType::kUdpJitter, measurement)).measurement_responder_port, 40009);
}

TEST_F(ResponderTest, AnswersBusyWhenItHasNoRoomForAnotherSession) {
  ResponderOptions options;
  options.limits.sessions = 1;
  Start(options);
  const Peer first;
  const Peer second;
  EXPECT_EQ(Ask(Request(SlaTestType::kUdpJitter, first)).status, Status::kSuccessful);
  EXPECT_EQ(Ask(Request(SlaTestType::kUdpJitter, second)).measurement_status,
            Status::kRequestedPortIsBusy);
  EXPECT_EQ(Ask(Request(SlaTestType::kUdpJitter, first)).status, Status::kSuccessful);
}

TEST_F(ResponderTest, RefusesAddressesThisHostDoesNotHave) {
  Start();
  const Peer measurement;
  ControlPhaseMessage request = Request(SlaTestType::kUdpJitter, measurement);
  request.measurement_responder_address.s_addr = inet_addr("192.0.2.1");
  EXPECT_EQ(Ask(request).measurement_status, Status::kUnsupportedAddress);
}

TEST_F(ResponderTest, AnswersOnTheBoundAddressOnly) {
  ResponderOptions options;
  options.bind.s_addr = inet_addr("127.0.0.1");
  Start(options);
  const Peer measurement;
  ControlPhaseMessage request = Request(SlaTestType::kUdpJitter, measurement);
  EXPECT_EQ(Ask(request).status, Status::kSuccessful);
  request.measurement_responder_address.s_addr = inet_addr("127.0.0.2");
  EXPECT_EQ(Ask(request).measurement_status, Status::kUnsupportedAddress);
}

TEST_F(ResponderTest, AnswersFromTheAddressThatWasAsked) {
  Start();
  const Peer measurement;
  ControlPhaseMessage request = Request(SlaTestType::kUdpJitter, measurement);
  request.control_responder_address.s_addr = htonl(kLoopback + 4);
  control_.Send(responder_->ControlPort(), EncodeControlMessage(request), kLoopback + 4);
  Endpoint source;
  control_.Receive(&source);
  EXPECT_EQ(source, (Endpoint{.address = kLoopback + 4, .port = responder_->ControlPort()}));
}

TEST_F(ResponderTest, IgnoresWhatIsTooShortToAnswerAndCutsItsAnswers) {
  Start();
  const std::vector<std::uint8_t> tiny = {2, 0, 0};
  control_.Send(responder_->ControlPort(), tiny);
  control_.Send(responder_->ControlPort(), std::vector<std::uint8_t>{});
  const std::vector<std::uint8_t> cut = {2, 0, 0, 0, 0, 0};
  control_.Send(responder_->ControlPort(), cut);
  EXPECT_EQ(test::ToHex(control_.Receive()), "020000070000");
  Stop();
  EXPECT_THAT(Lines(), Contains("stopped, requests refused 1, requests ignored 2, stray probes 0"));
}

TEST_F(ResponderTest, TakesNewKeysOnReloadAndKeepsTheOldOnesWhenThereAreNone) {
  Start();
  const Peer measurement;
  const ControlPhaseMessage request = Request(SlaTestType::kUdpJitter, measurement);
  SetNextPolicy(std::nullopt);
  responder_->Reload();
  ASSERT_TRUE(WaitForLine("loaded"));
  EXPECT_EQ(Ask(request).status, Status::kSuccessful);

  AuthPolicy policy;
  policy.password = "abc";
  SetNextPolicy(policy);
  responder_->Reload();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
  ControlPhaseMessage answer = Ask(request);
  while (answer.status == Status::kSuccessful && std::chrono::steady_clock::now() < deadline) {
    answer = Ask(request);
  }
  EXPECT_EQ(answer.auth_status, Status::kUnsupportedAuthenticationMode);

  ControlPhaseMessage signed_request = request;
  signed_request.auth_mode = SlaAuthMode::kPassword;
  signed_request.auth_algorithm = SlaAuthAlgorithm::kSha256;
  const auto digest =
      MessageDigest(SlaAuthAlgorithm::kSha256, EncodeControlMessage(signed_request), "abc");
  ASSERT_TRUE(digest.has_value());
  signed_request.digest = *digest;
  EXPECT_EQ(Ask(signed_request).status, Status::kSuccessful);
}

TEST_F(ResponderTest, SaysMoreWhenItIsVerbose) {
  ResponderOptions options;
  options.verbose = true;
  Start(options);
  const Peer measurement;
  ControlPhaseMessage request = Request(SlaTestType::kUdpEcho, measurement);
  EXPECT_EQ(Ask(request).status, Status::kSuccessful);
  request.role = Role::kSender;
  EXPECT_EQ(Ask(request).measurement_status, Status::kUnsupportedRole);
  Stop();
  std::vector<std::string> lines = Lines();
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("statistics: "); });
  EXPECT_THAT(lines, ElementsAre(StartsWith("listening on 0.0.0.0:"),
                                 StartsWith("session 1 opened: udp-echo from "),
                                 testing::EndsWith(": measurement: unsupported role"),
                                 StartsWith("session 1 stopped: "),
                                 StartsWith("stopped, requests refused 1")));
}

TEST_F(ResponderTest, TellsItsStatisticsOnDemandAndAtTheEnd) {
  Start();
  responder_->PrintStatistics();
  EXPECT_TRUE(WaitForLine("statistics: lines: left out 0"));
  const auto told = std::ranges::count_if(
      Lines(), [](const std::string& line) { return line.starts_with("statistics: "); });
  Stop();
  EXPECT_EQ(std::ranges::count_if(
                Lines(), [](const std::string& line) { return line.starts_with("statistics: "); }),
            2 * told);
}

TEST_F(ResponderTest, CannotStartOnAnAddressThisHostDoesNotHave) {
  ResponderOptions options;
  options.bind.s_addr = inet_addr("192.0.2.1");
  EXPECT_THROW(Start(options), std::system_error);
}

}  // namespace
}  // namespace ipsla::responder
