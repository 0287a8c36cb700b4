#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "exporter/listener.h"

namespace ipsla::exporter {
namespace {

using boost::asio::ip::tcp;

TEST(ExporterListener, IsAnAddressAndAPort) {
  for (const char* text : {"127.0.0.1:9815", "0.0.0.0:0", "[::1]:9815", "[fe80::1]:65535"}) {
    const auto target = ParseListenTarget(text);
    ASSERT_TRUE(target) << text;
    EXPECT_EQ(EndpointText(std::get<tcp::endpoint>(*target)), text);
  }
  for (const char* text : {"", ":", "9815", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536",
                           "127.0.0.1:x", "localhost:9815", "::1:9815", "[::1]", "[127.0.0.1]:1"}) {
    EXPECT_FALSE(ParseListenTarget(text)) << text;
  }
}

TEST(ExporterListener, IsADescriptor) {
  EXPECT_EQ(ParseListenTarget("fd:3"), ListenTarget(3));
  for (const char* text : {"fd:", "fd:-1", "fd:x", "fd:3x", "fd:99999999999", "fd"}) {
    EXPECT_FALSE(ParseListenTarget(text)) << text;
  }
}

TEST(ExporterListener, TakesAListeningSocketOver) {
  boost::asio::io_context context;
  tcp::acceptor own = Listen(&context, *ParseListenTarget("127.0.0.1:0"));
  const auto port = own.local_endpoint().port();
  EXPECT_NE(port, 0);
  const int copy = dup(own.native_handle());
  own.close();
  const tcp::acceptor taken = Listen(&context, copy);
  EXPECT_EQ(taken.local_endpoint().port(), port);
  EXPECT_THROW((void)Listen(&context, tcp::endpoint(tcp::v4(), port)), boost::system::system_error);
}

TEST(ExporterListener, RefusesADescriptorThatDoesNotListen) {
  boost::asio::io_context context;
  const int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int idle = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  for (const int fd : {udp, idle, STDERR_FILENO, 1000000}) {
    EXPECT_THROW((void)Listen(&context, fd), boost::system::system_error) << fd;
  }
  close(udp);
  close(idle);
}

}  // namespace
}  // namespace ipsla::exporter
