// Where the exporter serves: an address of its own, or a socket that it was started with.

#ifndef IPSLA_TOOLS_EXPORTER_LISTENER_H_
#define IPSLA_TOOLS_EXPORTER_LISTENER_H_

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace ipsla::exporter {

/// An address to bind to, or the number of a descriptor that listens already.
using ListenTarget = std::variant<boost::asio::ip::tcp::endpoint, int>;

/// "127.0.0.1:9815", "[::1]:9815" or "fd:3"; names are not looked up. Nothing for any other text.
[[nodiscard]] std::optional<ListenTarget> ParseListenTarget(std::string_view text);

/// A listening socket. Takes a descriptor over. Throws boost::system::system_error when it cannot
/// be bound, or a descriptor is no listening TCP socket.
[[nodiscard]] boost::asio::ip::tcp::acceptor Listen(boost::asio::io_context* context,
                                                    const ListenTarget& target);

/// "127.0.0.1:9815" or "[::1]:9815".
[[nodiscard]] std::string EndpointText(const boost::asio::ip::tcp::endpoint& endpoint);

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_LISTENER_H_
