#include "client/api_client.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "client/reply_assembler.h"

namespace ipsla::client {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Kind = ClientError::Kind;
using Outcome = ReplyAssembler::Outcome;

/// While nothing comes: how often to look whether the daemon is still there.
constexpr milliseconds kAliveCheckInterval{500};
/// A refusal is delivered by the loopback interface before send(2) returns; this is for a machine
/// that is busy.
constexpr milliseconds kRefusalWait{50};
constexpr int kReceiveBufferBytes = 4 << 20;

std::string SystemText(const char* operation) {
  return std::string(operation) + ": " + std::strerror(errno);
}

class Socket {
 public:
  explicit Socket(const ClientOptions& options)
      : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (fd_ < 0) {
      throw ClientError(Kind::kSystem, SystemText("socket"));
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options.port);
    const bool connected =
        inet_pton(AF_INET, options.address.c_str(), &address.sin_addr) == 1 &&
        connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    if (!connected) {
      const std::string text = SystemText("connect");
      close(fd_);
      throw ClientError(Kind::kSystem, text);
    }
    // Best effort: the default holds a few hundred fragments, and they come 10 ms apart.
    (void)setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes, sizeof(kReceiveBufferBytes));
  }
  ~Socket() { close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  [[nodiscard]] int Fd() const { return fd_; }

  /// 0, or an errno value.
  [[nodiscard]] int Send(const ApiBytes& bytes) const {
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 ? errno : 0;
  }

  /// The next datagram, or nothing with `error` an errno value.
  [[nodiscard]] std::optional<std::span<const std::uint8_t>> Receive(int* error) {
    const ssize_t size = recv(fd_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (size < 0) {
      *error = errno;
      return std::nullopt;
    }
    *error = 0;
    return std::span<const std::uint8_t>(buffer_.data(), static_cast<std::size_t>(size));
  }

 private:
  int fd_;
  std::array<std::uint8_t, 65536> buffer_{};
};

enum class Wait : std::uint8_t { kReadable, kTimeout, kInterrupted };

/// Waits for the socket (an error on it counts as readable) or the interrupt descriptor.
Wait WaitFor(const Socket& socket, int interrupt_fd, Clock::time_point deadline) {
  std::array<pollfd, 2> waits{pollfd{socket.Fd(), POLLIN, 0}, pollfd{interrupt_fd, POLLIN, 0}};
  while (true) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
    const int ready = poll(waits.data(), waits.size(),
                           static_cast<int>(std::clamp<std::int64_t>(left, 0, 60000)));
    if (ready < 0 && errno != EINTR) {
      throw ClientError(Kind::kSystem, SystemText("poll"));
    }
    if (ready > 0 && waits[1].revents != 0) {
      return Wait::kInterrupted;
    }
    if (ready > 0) {
      return Wait::kReadable;
    }
    if (Clock::now() >= deadline) {
      return Wait::kTimeout;
    }
  }
}

/// A request that its replies can be told by.
ApiBytes TaggedRequest(ApiCommand command, std::string_view json, ReplyTag* tag) {
  if (getrandom(tag->data(), tag->size(), 0) != static_cast<ssize_t>(tag->size())) {
    throw ClientError(Kind::kSystem, SystemText("getrandom"));
  }
  ApiBytes request = BuildApiRequest(command, json);
  if (request.size() > kApiMaxDatagram) {
    throw ClientError(Kind::kSystem, "a request is longer than the daemon reads");
  }
  std::copy(tag->begin(), tag->end(), request.begin());
  return request;
}

std::string Where(const ClientOptions& options) {
  return options.address + ":" + std::to_string(options.port);
}

[[noreturn]] void ThrowNoDaemon(const ClientOptions& options) {
  throw ClientError(Kind::kNoDaemon, "no daemon answers on " + Where(options));
}

[[noreturn]] void ThrowTimeout(const ReplyAssembler& reply, milliseconds timeout) {
  std::string text = "no reply within " + std::to_string(timeout.count()) + " ms";
  if (reply.FragmentCount() > 0) {
    const auto missing = reply.Missing();
    text = "the reply stayed incomplete: " + std::to_string(reply.FragmentCount()) +
           " fragments came, " +
           (missing.empty() ? "the last did not"
                            : "number " + std::to_string(missing.front()) + " did not");
  }
  throw ClientError(Kind::kTimeout, text);
}

/// One request, sent once, and what answers it. `timeout` is the longest silence; with `watch` the
/// daemon's presence is looked after meanwhile.
class Exchange {
 public:
  Exchange(const ApiClient& client, ApiCommand command, std::string_view json, bool watch)
      : client_(client),
        watch_(watch),
        socket_(client.Options()),
        request_(TaggedRequest(command, json, &tag_)),
        reply_(tag_, static_cast<std::uint16_t>(command)) {}

  /// True when the reply is complete, false when it stayed incomplete for `timeout`.
  bool Run(milliseconds timeout) {
    if (const int error = socket_.Send(request_); error != 0) {
      FailOn(error);
    }
    auto deadline = Clock::now() + timeout;
    auto alive_check = Clock::now() + kAliveCheckInterval;
    while (true) {
      const auto until = watch_ ? std::min(deadline, alive_check) : deadline;
      switch (WaitFor(socket_, client_.Options().interrupt_fd, until)) {
        case Wait::kInterrupted:
          throw ClientError(Kind::kInterrupted, "interrupted");
        case Wait::kReadable:
          if (const Outcome outcome = Take(); outcome == Outcome::kComplete) {
            return true;
          } else if (outcome == Outcome::kMore) {
            deadline = Clock::now() + timeout;
          }
          break;
        case Wait::kTimeout:
          break;
      }
      const bool is_late = Clock::now() >= deadline;
      if (watch_ && (is_late || Clock::now() >= alive_check)) {
        CheckAlive();
        alive_check = Clock::now() + kAliveCheckInterval;
      }
      if (is_late) {
        return false;
      }
    }
  }

  [[nodiscard]] const ReplyAssembler& Reply() const { return reply_; }

 private:
  [[noreturn]] void FailOn(int error) {
    if (error == ECONNREFUSED) {
      ThrowNoDaemon(client_.Options());
    }
    throw ClientError(Kind::kSystem,
                      std::string("exchange with the daemon failed: ") + std::strerror(error));
  }

  Outcome Take() {
    int error = 0;
    const auto datagram = socket_.Receive(&error);
    if (!datagram) {
      if (error == EAGAIN || error == EINTR) {
        return Outcome::kIgnored;
      }
      FailOn(error);
    }
    const Outcome outcome = reply_.Add(*datagram);
    if (outcome == Outcome::kRefused) {
      throw ClientError(Kind::kRefused, "the daemon refused the request");
    }
    if (outcome == Outcome::kMalformed) {
      throw ClientError(Kind::kMalformed, "a reply that makes no sense: " + reply_.Fault());
    }
    return outcome;
  }

  void CheckAlive() {
    if (client_.DaemonListens()) {
      return;
    }
    // It may have answered and then ended.
    if (WaitFor(socket_, -1, Clock::now()) == Wait::kReadable) {
      return;
    }
    throw ClientError(Kind::kEnded, "the daemon ended before it answered");
  }

  const ApiClient& client_;
  const bool watch_;
  ReplyTag tag_{};
  Socket socket_;
  ApiBytes request_;
  ReplyAssembler reply_;
};

}  // namespace

ApiClient::ApiClient(ClientOptions options) : options_(std::move(options)) {}

std::string ApiClient::Query(ApiCommand command, std::string_view json) const {
  constexpr int kAttempts = 2;
  for (int attempt = 1;; ++attempt) {
    Exchange exchange(*this, command, json, false);
    if (exchange.Run(options_.timeout)) {
      return exchange.Reply().Text();
    }
    // A lost fragment is worth asking again; silence is not, the daemon may still be busy with the
    // first request.
    if (exchange.Reply().FragmentCount() == 0 || attempt == kAttempts) {
      ThrowTimeout(exchange.Reply(), options_.timeout);
    }
  }
}

void ApiClient::Execute(ApiCommand command, milliseconds timeout) const {
  Exchange exchange(*this, command, "", true);
  if (!exchange.Run(timeout)) {
    ThrowTimeout(exchange.Reply(), timeout);
  }
}

bool ApiClient::DaemonListens() const {
  Socket socket(options_);
  ReplyTag tag{};
  const ApiBytes question = TaggedRequest(ApiCommand::kGetTaskStatus, R"({"tasks":[]})", &tag);
  if (socket.Send(question) != 0) {
    return false;
  }
  if (WaitFor(socket, -1, Clock::now() + kRefusalWait) != Wait::kReadable) {
    return true;  // busy with something else
  }
  int error = 0;
  return socket.Receive(&error).has_value() || error != ECONNREFUSED;
}

}  // namespace ipsla::client
