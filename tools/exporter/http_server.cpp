#include "exporter/http_server.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "exporter/http_session.h"

namespace ipsla::exporter {
namespace {

using boost::asio::ip::tcp;

/// Without a descriptor to spare, accepting fails at once, again and again.
constexpr std::chrono::milliseconds kPauseAfterFault{200};

}  // namespace

HttpServer::HttpServer(boost::asio::io_context* context, tcp::acceptor acceptor,
                       const Routes* routes)
    : context_(context), routes_(routes), acceptor_(std::move(acceptor)), pause_(*context) {
  Accept();
}

HttpServer::~HttpServer() = default;

void HttpServer::Accept() {
  acceptor_.async_accept(
      *context_, [this](const boost::system::error_code& error, tcp::socket socket) {
        if (!acceptor_.is_open() || error == boost::asio::error::operation_aborted) {
          return;
        }
        if (!error) {
          Admit(std::move(socket));
          Accept();
          return;
        }
        pause_.expires_after(kPauseAfterFault);
        pause_.async_wait([this](const boost::system::error_code& cancelled) {
          if (!cancelled) {
            Accept();
          }
        });
      });
}

void HttpServer::Admit(tcp::socket socket) {
  sessions_.remove_if([](const std::weak_ptr<HttpSession>& session) { return session.expired(); });
  if (sessions_.size() >= kMaxConnections && !MakePlace()) {
    return;
  }
  const auto session = std::make_shared<HttpSession>(std::move(socket), routes_);
  sessions_.push_back(session);
  session->Start();
}

bool HttpServer::MakePlace() {
  auto slowest = sessions_.end();
  auto since = std::chrono::steady_clock::now();
  for (auto entry = sessions_.begin(); entry != sessions_.end(); ++entry) {
    const auto session = entry->lock();
    const auto waiting = session ? session->WaitingSince() : std::nullopt;
    if (waiting && *waiting <= since) {
      since = *waiting;
      slowest = entry;
    }
  }
  if (slowest == sessions_.end()) {
    return false;
  }
  if (const auto session = slowest->lock()) {
    session->Close();
  }
  sessions_.erase(slowest);
  return true;
}

}  // namespace ipsla::exporter
