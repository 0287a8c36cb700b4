#include "exporter/listener.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <charconv>
#include <cstdint>
#include <sstream>

#include <boost/asio/ip/address.hpp>

namespace ipsla::exporter {
namespace {

using boost::asio::ip::tcp;

constexpr std::string_view kDescriptorPrefix = "fd:";

/// The whole text as a number; nothing when it is none or does not fit.
template <typename Number>
std::optional<Number> WholeNumber(std::string_view text) {
  Number number = 0;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (fault != std::errc{} || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

std::optional<ListenTarget> ParseAddress(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view host = text.substr(0, colon);
  const bool bracketed = host.starts_with('[') && host.ends_with(']');
  if (bracketed) {
    host = host.substr(1, host.size() - 2);
  }
  const auto port = WholeNumber<std::uint16_t>(text.substr(colon + 1));
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(std::string(host), error);
  if (!port || error || address.is_v6() != bracketed) {
    return std::nullopt;
  }
  return tcp::endpoint(address, *port);
}

/// The protocol of a listening TCP socket. Throws when the descriptor is none.
tcp ProtocolOf(int fd) {
  int type = 0;
  int listens = 0;
  int family = 0;
  socklen_t length = sizeof(int);
  const bool is_listening = getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 &&
                            getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) == 0 &&
                            getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &length) == 0 &&
                            type == SOCK_STREAM && listens != 0 &&
                            (family == AF_INET || family == AF_INET6);
  if (!is_listening) {
    throw boost::system::system_error(boost::asio::error::not_socket);
  }
  return family == AF_INET ? tcp::v4() : tcp::v6();
}

}  // namespace

std::optional<ListenTarget> ParseListenTarget(std::string_view text) {
  if (!text.starts_with(kDescriptorPrefix)) {
    return ParseAddress(text);
  }
  const auto fd = WholeNumber<int>(text.substr(kDescriptorPrefix.size()));
  return fd && *fd >= 0 ? std::optional<ListenTarget>(*fd) : std::nullopt;
}

tcp::acceptor Listen(boost::asio::io_context* context, const ListenTarget& target) {
  tcp::acceptor acceptor(*context);
  if (const int* fd = std::get_if<int>(&target)) {
    acceptor.assign(ProtocolOf(*fd), *fd);
    fcntl(*fd, F_SETFD, FD_CLOEXEC);
    return acceptor;
  }
  const auto& endpoint = std::get<tcp::endpoint>(target);
  acceptor.open(endpoint.protocol());
  acceptor.set_option(tcp::acceptor::reuse_address(true));
  acceptor.bind(endpoint);
  acceptor.listen();
  return acceptor;
}

std::string EndpointText(const tcp::endpoint& endpoint) {
  std::ostringstream text;
  text << endpoint;
  return text.str();
}

}  // namespace ipsla::exporter
