// The address that the exporter serves on, as text. Pure.

#ifndef IPSLA_TOOLS_EXPORTER_LISTEN_ADDRESS_H_
#define IPSLA_TOOLS_EXPORTER_LISTEN_ADDRESS_H_

#include <optional>
#include <string>
#include <string_view>

#include <boost/asio/ip/tcp.hpp>

namespace ipsla::exporter {

/// "127.0.0.1:9815" or "[::1]:9815"; names are not looked up. Nothing for any other text.
[[nodiscard]] std::optional<boost::asio::ip::tcp::endpoint> ParseListenAddress(
    std::string_view text);

/// As ParseListenAddress reads it.
[[nodiscard]] std::string EndpointText(const boost::asio::ip::tcp::endpoint& endpoint);

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_LISTEN_ADDRESS_H_
