#include "exporter/http_session.h"

#include <algorithm>
#include <string>
#include <utility>

#include <boost/asio/post.hpp>

namespace ipsla::exporter {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using std::chrono::seconds;

/// From the end of the last answer to the end of a request's header; an idle connection lives as
/// long.
constexpr seconds kReadTimeout{30};
constexpr seconds kWriteTimeout{30};
/// A client that is reading its answer is not yet waited for.
constexpr seconds kWritePatience{2};
constexpr std::uint32_t kMaxHeaderBytes = 8192;
/// What is still taken from a client after the last answer, and for how long: a socket closed over
/// unread bytes could take the answer away from him.
constexpr std::size_t kMaxDrainedBytes = 256U << 10U;
constexpr seconds kDrainTimeout{1};
constexpr std::size_t kDrainPiece = 4096;

/// Nothing but the exporter's own files is ever loaded, and nothing of it is shown inside another
/// page.
constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

beast::string_view View(std::string_view text) {
  return {text.data(), text.size()};
}

std::string Text(beast::string_view text) {
  return {text.data(), text.size()};
}

template <typename Message>
void SetFields(Message* message, const WebReply& reply) {
  message->result(reply.status);
  message->set(http::field::server, "ip-sla-exporter");
  message->set(http::field::content_type, View(reply.type));
  message->set(http::field::cache_control, reply.etag.empty() ? "no-store" : "no-cache");
  if (!reply.etag.empty()) {
    message->set(http::field::etag, View(reply.etag));
  }
  message->set("Content-Security-Policy", kContentSecurityPolicy);
  message->set("X-Content-Type-Options", "nosniff");
  message->set("Referrer-Policy", "no-referrer");
  if (message->result() == http::status::method_not_allowed) {
    message->set(http::field::allow, "GET, HEAD");
  }
}

}  // namespace

HttpSession::HttpSession(boost::asio::ip::tcp::socket socket, const Routes* routes)
    : stream_(std::move(socket)), routes_(routes), buffer_(kMaxHeaderBytes) {}

void HttpSession::Start() {
  Read();
}

void HttpSession::Close() {
  stream_.close();
}

void HttpSession::Read() {
  parser_.emplace();
  parser_->header_limit(kMaxHeaderBytes);
  waiting_since_ = std::chrono::steady_clock::now();
  stream_.expires_after(kReadTimeout);
  http::async_read(stream_, buffer_, *parser_,
                   [self = shared_from_this()](const beast::error_code& error, std::size_t) {
                     self->waiting_since_.reset();
                     if (error) {
                       self->OnReadFault(error);
                     } else {
                       self->OnRead();
                     }
                   });
}

void HttpSession::OnReadFault(const beast::error_code& error) {
  const bool is_header = parser_->is_header_done();
  const bool has_body = error == http::error::unexpected_body || error == http::error::body_limit;
  if (has_body && is_header) {
    // A method that is not served at all is the better reason.
    OnRead();
  } else if (error == http::error::header_limit || error == http::error::buffer_overflow) {
    Reply(ErrorReply(431, "The request's header is too long.\n"), false, false);
  } else if (error.category() == make_error_code(http::error::bad_method).category() &&
             error != http::error::end_of_stream && error != http::error::partial_message) {
    Reply(ErrorReply(400, "This is no request that can be understood.\n"), false, false);
  }
  // Else the other side has gone, or was too slow: nobody listens.
}

void HttpSession::OnRead() {
  const auto& request = parser_->get();
  const bool is_head = request.method() == http::verb::head;
  const bool keep_alive = parser_->is_done() && request.keep_alive();
  if (!is_head && request.method() != http::verb::get) {
    Reply(ErrorReply(405, "Only GET and HEAD are served.\n"), false, false);
    return;
  }
  if (!parser_->is_done()) {
    Reply(ErrorReply(400, "A request with a body is not served.\n"), is_head, false);
    return;
  }
  const WebRequest asked{.target = Text(request.target()),
                         .accept = Text(request[http::field::accept]),
                         .if_none_match = Text(request[http::field::if_none_match])};
  stream_.expires_never();
  routes_->Answer(asked, [self = shared_from_this(), is_head, keep_alive](WebReply reply) {
    // The collector may have called, from its thread.
    boost::asio::post(self->stream_.get_executor(),
                      [self, is_head, keep_alive, reply = std::move(reply)] {
                        self->Reply(reply, is_head, keep_alive);
                      });
  });
}

void HttpSession::Reply(const WebReply& reply, bool is_head, bool keep_alive) {
  body_owner_ = reply.owner;
  response_.emplace();
  SetFields(&*response_, reply);
  response_->keep_alive(keep_alive);
  response_->body() = {reply.body.data(), reply.body.size()};
  if (response_->result() != http::status::not_modified) {
    response_->content_length(reply.body.size());
  }
  serializer_.emplace(*response_);
  stream_.expires_after(kWriteTimeout);
  waiting_since_ = std::chrono::steady_clock::now() + kWritePatience;
  const auto done = [self = shared_from_this(), keep_alive](const beast::error_code& error,
                                                            std::size_t) {
    self->OnWritten(error, keep_alive);
  };
  if (is_head || response_->result() == http::status::not_modified) {
    http::async_write_header(stream_, *serializer_, done);
  } else {
    http::async_write(stream_, *serializer_, done);
  }
}

void HttpSession::OnWritten(const beast::error_code& error, bool keep_alive) {
  serializer_.reset();
  response_.reset();
  body_owner_.reset();
  waiting_since_.reset();
  if (error) {
    return;
  }
  if (keep_alive) {
    Read();
    return;
  }
  beast::error_code ignored;
  stream_.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
  stream_.expires_after(kDrainTimeout);
  waiting_since_ = std::chrono::steady_clock::now();
  Drain(kMaxDrainedBytes);
}

void HttpSession::Drain(std::size_t left) {
  buffer_.clear();
  stream_.async_read_some(
      buffer_.prepare(kDrainPiece),
      [self = shared_from_this(), left](const beast::error_code& error, std::size_t size) {
        if (!error && size < left) {
          self->Drain(left - size);
        }
      });
}

}  // namespace ipsla::exporter
