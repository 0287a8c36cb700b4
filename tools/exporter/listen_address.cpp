#include "exporter/listen_address.h"

#include <charconv>
#include <cstdint>
#include <sstream>

#include <boost/asio/ip/address.hpp>

namespace ipsla::exporter {

std::optional<boost::asio::ip::tcp::endpoint> ParseListenAddress(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon + 1 == text.size()) {
    return std::nullopt;
  }
  std::string_view host = text.substr(0, colon);
  const bool bracketed = host.starts_with('[') && host.ends_with(']');
  if (bracketed) {
    host = host.substr(1, host.size() - 2);
  }
  std::uint16_t port = 0;
  const auto [end, fault] =
      std::from_chars(text.data() + colon + 1, text.data() + text.size(), port);
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(std::string(host), error);
  if (fault != std::errc{} || end != text.data() + text.size() || error ||
      address.is_v6() != bracketed) {
    return std::nullopt;
  }
  return boost::asio::ip::tcp::endpoint(address, port);
}

std::string EndpointText(const boost::asio::ip::tcp::endpoint& endpoint) {
  std::ostringstream text;
  text << endpoint;
  return text.str();
}

}  // namespace ipsla::exporter
