// A UDP socket of the loopback interface for tests of socket options and stamps.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_LOOPBACK_SOCKET_H_
#define IPSLA_TESTS_UNIT_SUPPORT_LOOPBACK_SOCKET_H_

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

namespace ipsla::test {

/// A UDP socket on a port of the loopback interface.
class LoopbackSocket {
 public:
  LoopbackSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address_;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address_), length), 0);
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address_), &length), 0);
  }
  ~LoopbackSocket() { close(fd_); }
  LoopbackSocket(const LoopbackSocket&) = delete;
  LoopbackSocket& operator=(const LoopbackSocket&) = delete;

  [[nodiscard]] int Fd() const { return fd_; }
  [[nodiscard]] const sockaddr_in& Address() const { return address_; }

  void SendTo(const LoopbackSocket& peer, const std::string& text) const {
    const auto* to = reinterpret_cast<const sockaddr*>(&peer.address_);
    EXPECT_EQ(sendto(fd_, text.data(), text.size(), 0, to, sizeof peer.address_),
              static_cast<ssize_t>(text.size()));
  }

  void ConnectTo(const sockaddr_in& peer) const {
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer), 0);
  }

  void WaitReadable() const {
    pollfd wait{fd_, POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 10000), 1);
  }

  [[nodiscard]] int ReceiveBuffer() const {
    int size = 0;
    socklen_t length = sizeof size;
    EXPECT_EQ(getsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
    return size;
  }

 private:
  int fd_;
  sockaddr_in address_{};
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_LOOPBACK_SOCKET_H_
