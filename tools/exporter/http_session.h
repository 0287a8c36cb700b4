// One connection: requests in, answers out, one after the other.

#ifndef IPSLA_TOOLS_EXPORTER_HTTP_SESSION_H_
#define IPSLA_TOOLS_EXPORTER_HTTP_SESSION_H_

#include <chrono>
#include <memory>
#include <optional>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>

#include "exporter/routes.h"

namespace ipsla::exporter {

/// Threads: the one that runs the socket's context. Held by its pending operations; it ends with
/// the connection, on a fault of the other side, or when that is too slow.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  /// Takes over a connection. `routes` must outlive it.
  HttpSession(boost::asio::ip::tcp::socket socket, const Routes* routes);

  /// To be called once.
  void Start();

  /// Ends the connection at once.
  void Close();

  /// When it began to wait for the other side: for a request that is not here yet or, some seconds
  /// from when it was sent, for an answer to be taken. In the future before that; nothing while the
  /// daemon is waited for.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> WaitingSince() const {
    return waiting_since_;
  }

 private:
  // Sends bytes that somebody else keeps.
  using Response = boost::beast::http::response<boost::beast::http::span_body<const char>>;

  // A request's way: read, answered, written; then the next one, or what is left is drained.
  void Read();
  void OnRead();
  void OnReadFault(const boost::beast::error_code& error);
  void Reply(const WebReply& reply, bool is_head, bool keep_alive);
  void OnWritten(const boost::beast::error_code& error, bool keep_alive);
  void Drain(std::size_t left);

  // The connection, and what was read from it.
  boost::beast::tcp_stream stream_;
  const Routes* const routes_;
  boost::beast::flat_buffer buffer_;
  // Of one request; a parser cannot be used twice.
  std::optional<boost::beast::http::request_parser<boost::beast::http::empty_body>> parser_;
  // What is being written, and whoever owns its body.
  std::optional<Response> response_;
  std::optional<boost::beast::http::response_serializer<Response::body_type>> serializer_;
  std::shared_ptr<const std::string> body_owner_;
  std::optional<std::chrono::steady_clock::time_point> waiting_since_;
};

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_HTTP_SESSION_H_
