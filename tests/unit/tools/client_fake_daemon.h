// The daemon's end of the Sender API, answered by a test.

#ifndef IPSLA_TESTS_UNIT_TOOLS_CLIENT_FAKE_DAEMON_H_
#define IPSLA_TESTS_UNIT_TOOLS_CLIENT_FAKE_DAEMON_H_

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "api/sender_api_message.h"
#include "client/api_client.h"

namespace ipsla::test {

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
  [[nodiscard]] client::ClientOptions Options(
      std::chrono::milliseconds timeout = std::chrono::milliseconds(20000)) const {
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

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_TOOLS_CLIENT_FAKE_DAEMON_H_
